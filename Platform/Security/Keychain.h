#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Foundation/Data.h"

namespace skelda::platform {

using OSStatus = std::int32_t;
inline constexpr OSStatus errSecSuccess = 0;
inline constexpr OSStatus errSecIO = -36;
inline constexpr OSStatus errSecParam = -50;
inline constexpr OSStatus errSecDuplicateItem = -25299;
inline constexpr OSStatus errSecItemNotFound = -25300;
inline constexpr OSStatus errSecInteractionNotAllowed = -25308;
inline constexpr OSStatus errSecDecode = -26275;

enum class KeychainAccessibility {
  whenUnlocked,                    ///< kSecAttrAccessibleWhenUnlocked
  afterFirstUnlockThisDeviceOnly,  ///< kSecAttrAccessibleAfterFirstUnlockThisDeviceOnly
};

/// Names one generic-password item: service, account and generic attribute.
struct KeychainQuery {
  std::string service;
  Data account;
  Data generic;
};

struct KeychainNewItem {
  KeychainQuery query;
  Data value;
  KeychainAccessibility accessibility;
};

// Generic-password items, one file per service in ${XDG_STATE_HOME:-~/.local/state}/
// skelda-keychain/, replaced atomically under a file lock, values sealed with AES-256-GCM. Safe
// from any thread and process. Nothing throws: every failure is a status.
OSStatus SecItemAdd(const KeychainQuery& item, const Data& value,
                    KeychainAccessibility accessibility);
OSStatus SecItemCopyMatching(const KeychainQuery& query, Data* value);
OSStatus SecItemUpdate(const KeychainQuery& query, const Data& value);
/// Adds the items of one service, or gives those that are there their new values, in one write: all
/// of them or none.
OSStatus SecItemsSet(const std::vector<KeychainNewItem>& items);
OSStatus SecItemDelete(const KeychainQuery& query);

/// Whether the device is locked, as the host or a test says. Unlocked at first. While locked,
/// whenUnlocked items answer errSecInteractionNotAllowed. Any thread.
class DeviceLock {
 public:
  static bool isLocked() noexcept;
  static void setLocked(bool locked) noexcept;
};

}  // namespace skelda::platform
