#include "Analytics/Utils/SkeldaKeychainWrapper.h"

#include <vector>

#include "Analytics/Utils/SkeldaGuards.h"
#include "Platform/Base/Counted.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/TextCoding.h"
#include "Platform/Security/Keychain.h"

namespace {

using platform::KeychainAccessibility;
using skelda::guardedResult;

platform::KeychainQuery search(const std::string& service, std::string_view key) {
  const platform::Data bytes{std::string(key)};
  return {service, bytes, bytes};
}

bool update(const std::string& service, const std::optional<platform::Data>& data,
            std::string_view key) {
  return data.has_value() &&
         platform::SecItemUpdate(search(service, key), *data) == platform::errSecSuccess;
}

bool add(const std::string& service, const std::optional<platform::Data>& data,
         std::string_view key, KeychainAccessibility accessibility) noexcept {
  return guardedResult(false, [&] {
    if (key.empty() || !data) return false;
    switch (platform::SecItemAdd(search(service, key), *data, accessibility)) {
      case platform::errSecSuccess:
        return true;
      case platform::errSecDuplicateItem:
        return update(service, data, key);
      default:
        return false;
    }
  });
}

std::optional<platform::Data> encoded(const std::optional<std::string>& text) {
  return text ? std::optional(platform::Data(*text)) : std::nullopt;
}

}  // namespace

std::shared_ptr<SkeldaKeychainWrapper> SkeldaKeychainWrapper::keychainWrapperWithIdentifier(
    std::string_view identifier) {
  return platform::makeCounted<SkeldaKeychainWrapper>(identifier);
}

SkeldaKeychainWrapper::SkeldaKeychainWrapper(std::string_view identifier)
    : identifier_(platform::Bundle::main()->bundleIdentifier().value_or("") +
                  std::string(identifier)) {}

bool SkeldaKeychainWrapper::setData(const std::optional<platform::Data>& data,
                                    std::string_view key) noexcept {
  return add(identifier_, data, key, KeychainAccessibility::whenUnlocked);
}

bool SkeldaKeychainWrapper::setThisDeviceData(const std::optional<platform::Data>& data,
                                              std::string_view key) noexcept {
  return add(identifier_, data, key, KeychainAccessibility::afterFirstUnlockThisDeviceOnly);
}

bool SkeldaKeychainWrapper::setString(const std::optional<std::string>& text,
                                      std::string_view key) noexcept {
  return guardedResult(false, [&] { return setData(encoded(text), key); });
}

bool SkeldaKeychainWrapper::setThisDeviceString(const std::optional<std::string>& text,
                                                std::string_view key) noexcept {
  return guardedResult(false, [&] { return setThisDeviceData(encoded(text), key); });
}

bool SkeldaKeychainWrapper::setStrings(const platform::Dictionary& textsByKey) noexcept {
  return guardedResult(false, [&] {
    std::vector<platform::KeychainNewItem> items;
    for (const auto& [key, text] : textsByKey) {
      if (key.empty() || text.text() == nullptr) return false;
      items.push_back({search(identifier_, key), platform::Data(*text.text()),
                       KeychainAccessibility::whenUnlocked});
    }
    return platform::SecItemsSet(items) == platform::errSecSuccess;
  });
}

bool SkeldaKeychainWrapper::setObject(const std::optional<platform::KeyedArchive>& object,
                                      std::string_view key) noexcept {
  return guardedResult(
      false, [&] { return object.has_value() && setData(platform::archivedData(*object), key); });
}

bool SkeldaKeychainWrapper::isAbsent(std::string_view key) const noexcept {
  return guardedResult(false, [&] {
    const auto status = platform::SecItemCopyMatching(search(identifier_, key), nullptr);
    return status == platform::errSecItemNotFound || status == platform::errSecDecode;
  });
}

std::optional<platform::Data> SkeldaKeychainWrapper::dataForKey(
    std::string_view key) const noexcept {
  return guardedResult(std::optional<platform::Data>(), [&] {
    platform::Data data;
    const auto status = platform::SecItemCopyMatching(search(identifier_, key), &data);
    return status == platform::errSecSuccess ? std::optional(std::move(data)) : std::nullopt;
  });
}

std::optional<std::string> SkeldaKeychainWrapper::stringForKey(
    std::string_view key) const noexcept {
  auto data = dataForKey(key);
  if (!data || !platform::isValidUTF8(data->view())) return std::nullopt;
  return std::move(*data).string();
}

std::optional<platform::KeyedArchive> SkeldaKeychainWrapper::objectForKey(
    std::string_view key) const noexcept {
  return guardedResult(std::optional<platform::KeyedArchive>(), [&] {
    const auto data = dataForKey(key);
    return data ? std::optional(platform::unarchivedObject(*data)) : std::nullopt;
  });
}

bool SkeldaKeychainWrapper::updateValueData(const std::optional<platform::Data>& data,
                                            std::string_view key) noexcept {
  return guardedResult(false, [&] { return update(identifier_, data, key); });
}

bool SkeldaKeychainWrapper::removeObjectForKey(std::string_view key) noexcept {
  return guardedResult(false, [&] {
    return platform::SecItemDelete(search(identifier_, key)) == platform::errSecSuccess;
  });
}
