#include <memory>

#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/SystemFiles.h"
#include "Platform/Foundation/TextCoding.h"
#include "Platform/Foundation/UUID.h"
#include "Platform/Security/Digest.h"

namespace {

/// The value of a hexadecimal digit; -1 for what is none.
int digitValue(char digit) noexcept {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

}  // namespace

std::optional<std::string> SkeldaUtil::string2Base64UTF8String(
    std::optional<std::string_view> text) {
  if (!text || text->empty() || !platform::isValidUTF8(*text)) return std::nullopt;
  return platform::base64Encoded(*text);
}

std::optional<std::string> SkeldaUtil::base64EncodedString2UTF8String(
    std::optional<std::string_view> text) {
  if (!text || text->empty()) return std::nullopt;
  auto bytes = platform::base64Decoded(*text);
  if (!bytes || !platform::isValidUTF8(bytes->view())) return std::nullopt;
  return std::move(*bytes).string();
}

platform::Dictionary SkeldaUtil::dictionary2Base64UTF8Dictionary(
    const platform::Dictionary& dictionary) {
  platform::Dictionary encoded;
  encoded.reserve(dictionary.size());
  for (const auto& [key, value] : dictionary) {
    auto encodedKey = string2Base64UTF8String(key);
    std::optional<std::string> encodedValue;
    if (const std::string* text = value.text()) {
      encodedValue = string2Base64UTF8String(*text);
    } else if (!value.isNull()) {
      encodedValue = string2Base64UTF8String(value.description());
    }
    if (!encodedKey || !encodedValue) {
      SKELDA_LOG(1, "{}: nothing to encode, left out: key = [{}]",
                 "+[SkeldaUtil dictionary2Base64UTF8Dictionary:]",
                 encodedKey ? std::string_view(key) : std::string_view());
      continue;
    }
    encoded.append(*std::move(encodedKey), *std::move(encodedValue));
  }
  return encoded;
}

std::string SkeldaUtil::hexadecimalStringForData(const platform::Data& data) {
  return platform::hexadecimal(data.view());
}

std::optional<platform::Data> SkeldaUtil::dataFromHexString(std::optional<std::string_view> text) {
  if (!text) return std::nullopt;
  std::string bytes;
  bytes.reserve(text->size() / 2);
  int high = -1;
  for (const char digit : *text) {
    if (digit == '-') continue;
    const int value = digitValue(digit);
    if (value < 0) return std::nullopt;
    if (high < 0) {
      high = value;
    } else {
      bytes += static_cast<char>(high << 4 | value);
      high = -1;
    }
  }
  if (high >= 0) return std::nullopt;
  return platform::Data(std::move(bytes));
}

std::string SkeldaUtil::generateCFUUID() {
  return platform::newUUIDString();
}

std::optional<std::string> SkeldaUtil::trimString(std::optional<std::string_view> text,
                                                  std::size_t maxLength) {
  if (!text) return std::nullopt;
  if (text->size() <= maxLength) return std::string(*text);
  // Back over the bytes that only go on with a character (10xxxxxx).
  while (maxLength > 0 && (static_cast<unsigned char>((*text)[maxLength]) & 0xC0) == 0x80) {
    --maxLength;
  }
  return std::string(text->substr(0, maxLength));
}

std::optional<std::string> SkeldaUtil::getIdentifierForVendor() {
  std::string identifier = platform::WKInterfaceDevice::currentDevice()->identifierForVendor();
  if (identifier.empty()) return std::nullopt;
  return identifier;
}

std::optional<std::string> SkeldaUtil::getSkeldaId() {
  const auto machine = platform::machineID();
  if (!machine) return std::nullopt;
  const std::string digest = platform::hmacSHA256(
      *machine, "skelda id\n" + platform::Bundle::main()->bundleIdentifier().value_or(""));
  if (digest.empty()) return std::nullopt;
  return hexadecimalStringForData(platform::Data(digest.substr(0, 16)));
}
