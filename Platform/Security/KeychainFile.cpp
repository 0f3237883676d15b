#include "Platform/Security/KeychainFile.h"

#include <cerrno>
#include <optional>

#include "Platform/Base/LogFormat.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileDescriptor.h"
#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/TextCoding.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Security/Digest.h"

namespace skelda::platform {

namespace {

constexpr KeychainAccessibility kAccessibilities[] = {
    KeychainAccessibility::whenUnlocked, KeychainAccessibility::afterFirstUnlockThisDeviceOnly};

std::string fileNameOf(std::string_view service) {
  return hexadecimal(std::string_view(sha256(service)).substr(0, 16)) + ".json";
}

const std::string* textUnder(const Dictionary& dictionary, std::string_view key) {
  const Value* value = dictionary.find(key);
  return value != nullptr ? value->text() : nullptr;
}

std::optional<Data> bytesUnder(const Dictionary& dictionary, std::string_view key) {
  const std::string* text = textUnder(dictionary, key);
  return text != nullptr ? base64Decoded(*text) : std::nullopt;
}

std::optional<KeychainItem> itemFrom(const Value& value) {
  const Dictionary* entry = value.dictionary();
  if (entry == nullptr) return std::nullopt;
  auto account = bytesUnder(*entry, "account");
  auto generic = bytesUnder(*entry, "generic");
  auto nonce = bytesUnder(*entry, "nonce");
  auto sealed = bytesUnder(*entry, "sealed");
  const std::string* accessible = textUnder(*entry, "accessible");
  if (!account || !generic || !nonce || !sealed || accessible == nullptr) return std::nullopt;
  for (const KeychainAccessibility accessibility : kAccessibilities) {
    if (nameOf(accessibility) != *accessible) continue;
    return KeychainItem{*std::move(account),
                        *std::move(generic),
                        accessibility,
                        {std::move(*nonce).string(), std::move(*sealed).string()}};
  }
  return std::nullopt;
}

}  // namespace

std::string_view nameOf(KeychainAccessibility accessibility) {
  return accessibility == KeychainAccessibility::whenUnlocked ? "whenUnlocked"
                                                              : "afterFirstUnlockThisDeviceOnly";
}

KeychainFile::KeychainFile(const std::string& folder, std::string service)
    : service_(std::move(service)), path_(folder + "/" + fileNameOf(service_)) {}

OSStatus KeychainFile::read() {
  items_.clear();
  damaged_ = false;
  int error = 0;
  const auto text = readWholeFile(path_, error);
  if (!text && !isNoFile(error)) return error == ENOENT ? errSecSuccess : errSecIO;
  damaged_ = !text || !parse(*text);
  if (damaged_) items_.clear();
  return errSecSuccess;
}

bool KeychainFile::parse(std::string_view text) {
  const auto value = readJSON(text);
  const Dictionary* root = value ? value->dictionary() : nullptr;
  if (root == nullptr) return false;
  const std::string* kind = textUnder(*root, "keychain");
  const std::string* service = textUnder(*root, "service");
  const Value* version = root->find("version");
  const Value* items = root->find("items");
  if (kind == nullptr || *kind != "skelda" || service == nullptr || *service != service_ ||
      version == nullptr || !(*version == Value(1)) || items == nullptr ||
      items->array() == nullptr) {
    return false;
  }
  for (const Value& entry : *items->array()) {
    if (auto item = itemFrom(entry)) {
      items_.push_back(*std::move(item));
    } else {
      SKELDA_PLATFORM_LOG("Keychain: an item in {} cannot be understood, it is left out", path_);
    }
  }
  return true;
}

bool KeychainFile::isNoFile(int error) noexcept {
  return error == EISDIR || error == ENXIO || error == ELOOP;
}

bool KeychainFile::setAside(const std::string& path, std::string_view why) {
  std::string damaged = path + ".damaged";
  for (char more = '2'; FileCalls::current().rename(path.c_str(), damaged.c_str()) != 0; ++more) {
    if (more > '9') return false;
    damaged = path + ".damaged" + more;  // a file never takes a folder's place
  }
  SKELDA_PLATFORM_LOG("Keychain: {} {}; it is kept as {} and begun anew", path, why, damaged);
  return true;
}

bool KeychainFile::setAside() {
  if (!setAside(path_, "cannot be understood")) return false;
  damaged_ = false;
  return true;
}

OSStatus KeychainFile::write() const {
  std::string text;
  JSONWriter json(text, true);
  const auto member = [&json](std::string_view key, std::string_view value) {
    json.key(key);
    json.text(value);
  };
  json.beginObject();
  member("keychain", "skelda");
  json.key("version");
  json.integer(1);
  member("service", service_);
  json.key("items");
  json.beginArray();
  for (const KeychainItem& item : items_) {
    json.beginObject();
    member("account", base64Encoded(item.account.view()));
    member("generic", base64Encoded(item.generic.view()));
    member("accessible", nameOf(item.accessibility));
    member("nonce", base64Encoded(item.sealed.nonce));
    member("sealed", base64Encoded(item.sealed.bytes));
    json.endObject();
  }
  json.endArray();
  json.endObject();
  text += '\n';
  return replaceFile(path_, path_ + ".new", text) == 0 ? errSecSuccess : errSecIO;
}

KeychainItem* KeychainFile::find(const KeychainQuery& query) noexcept {
  for (KeychainItem& item : items_) {
    if (item.account == query.account && (query.generic.empty() || item.generic == query.generic)) {
      return &item;
    }
  }
  return nullptr;
}

}  // namespace skelda::platform
