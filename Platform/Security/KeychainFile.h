#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/Foundation/Data.h"
#include "Platform/Security/Keychain.h"
#include "Platform/Security/Sealing.h"

namespace skelda::platform {

struct KeychainItem {
  Data account;
  Data generic;
  KeychainAccessibility accessibility;
  Sealed sealed;
};

/// The word for an accessibility in the file and in what is authenticated with an item.
std::string_view nameOf(KeychainAccessibility accessibility);

/// The file of one service, below ${XDG_STATE_HOME:-~/.local/state}/skelda-keychain:
///
///   sealing.key       32 random bytes, made with the first item and never changed; where it is
///                     anything else it is set aside by the next write, and another one made
///   lock              empty; changes are made under a flock on it
///   <digest>.json     a service's items; the digest is 32 hexadecimal digits of the SHA-256 of
///                     the service's name
///   *.new             what a replacement that was cut short leaves; taken over by the next one
///   *.damaged         what could not be understood when an item was written: a service's file or
///                     the key
///
/// and in a service's file, binary values being base64:
///
///   {"keychain": "skelda", "version": 1, "service": "...",
///    "items": [{"account": "...", "generic": "...",
///               "accessible": "whenUnlocked" or "afterFirstUnlockThisDeviceOnly",
///               "nonce": 12 bytes, "sealed": the encrypted value and a tag of 16 bytes}]}
///
/// Items for this device only are sealed under a key derived from sealing.key and the machine id,
/// the others under sealing.key itself. Service, account, generic attribute and accessibility are
/// authenticated with the value. An item that cannot be understood is left out, with a line, and
/// harms no other. One thread at a time.
class KeychainFile {
 public:
  /// Renames what stands at the path to "*.damaged", or "*.damaged2" and so on where that cannot
  /// be, with a line that says why.
  static bool setAside(const std::string& path, std::string_view why);
  /// Whether what stands at a path that cannot be read for `error` can never be: it is no file.
  static bool isNoFile(int error) noexcept;

  KeychainFile(const std::string& folder, std::string service);

  /// An absent file has no items. Success also where the file is damaged; errSecIO where it cannot
  /// be read.
  OSStatus read();
  /// Whether what was read is not such a file, or is another service's.
  bool isDamaged() const noexcept { return damaged_; }
  /// Moves the damaged file out of the way; this one is empty then.
  bool setAside();
  OSStatus write() const;

  std::vector<KeychainItem>& items() noexcept { return items_; }
  /// The first item with the query's account and, where the query has one, generic attribute.
  KeychainItem* find(const KeychainQuery& query) noexcept;

 private:
  bool parse(std::string_view text);

  std::string service_;
  std::string path_;
  std::vector<KeychainItem> items_;
  bool damaged_ = false;
};

}  // namespace skelda::platform
