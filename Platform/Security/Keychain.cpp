#include "Platform/Security/Keychain.h"

#include <fcntl.h>
#include <sys/file.h>

#include <atomic>
#include <cerrno>

#include "Platform/Foundation/FileDescriptor.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/SystemFiles.h"
#include "Platform/Foundation/TextCoding.h"
#include "Platform/Security/KeychainFile.h"
#include "Platform/Security/Sealing.h"

namespace skelda::platform {

namespace {

constinit std::atomic<bool> deviceLocked{false};

std::string keychainFolder() {
  return FileManager::stateDirectory() + "/skelda-keychain";
}
std::string keyPath() {
  return keychainFolder() + "/sealing.key";
}

/// What the items of one accessibility are sealed under, made of the sealing key.
OSStatus bindKey(SealingKey& key, KeychainAccessibility accessibility) {
  if (accessibility == KeychainAccessibility::whenUnlocked) return errSecSuccess;
  int error = 0;
  const auto machine = machineID(&error);
  if (error != 0) return errSecIO;
  return key.derive("this device only\n" + machine.value_or("")) ? errSecSuccess : errSecIO;
}

/// What is authenticated with an item: sealed bytes that were moved to another service, account or
/// accessibility do not open.
std::string contextOf(const std::string& service, const KeychainItem& item) {
  std::string context = "skelda-keychain 1\n";
  for (const std::string_view part : {std::string_view(service), item.account.view(),
                                      item.generic.view(), nameOf(item.accessibility)}) {
    context += std::to_string(part.size());
    context += ':';
    context += part;
  }
  return context;
}

OSStatus readKey(SealingKey& key) {
  int error = 0;
  auto bytes = readWholeFile(keyPath(), error);
  if (!bytes && KeychainFile::isNoFile(error)) return errSecDecode;
  if (!bytes) return error == ENOENT ? errSecItemNotFound : errSecIO;
  const bool isKey = key.assign(*bytes);
  wipe(*bytes);
  return isKey ? errSecSuccess : errSecDecode;
}

/// The key, made now where there is none, or something that is none. Under the lock of the folder,
/// so that there is only one.
OSStatus readOrMakeKey(SealingKey& key) {
  const OSStatus status = readKey(key);
  if (status == errSecDecode) {
    if (!KeychainFile::setAside(keyPath(), "is no key, so that no item opens any more")) {
      return errSecIO;
    }
  } else if (status != errSecItemNotFound) {
    return status;
  }
  if (!key.makeRandom() || replaceFile(keyPath(), keyPath() + ".new", key.view()) != 0) {
    return errSecIO;
  }
  return errSecSuccess;
}

bool isClosedByDeviceLock(const KeychainItem& item) {
  return item.accessibility == KeychainAccessibility::whenUnlocked && DeviceLock::isLocked();
}

OSStatus sealInto(KeychainItem& item, const std::string& service, const Data& value) {
  SealingKey key;
  if (const OSStatus status = readOrMakeKey(key)) return status;
  if (const OSStatus status = bindKey(key, item.accessibility)) return status;
  auto sealed = seal(key, value.view(), contextOf(service, item));
  if (!sealed) return errSecIO;
  item.sealed = *std::move(sealed);
  return errSecSuccess;
}

/// A change of one service's file: read under the lock, changed by `change` and, where that
/// succeeds, replaced.
template <class Change>
OSStatus changed(const std::string& service, Change change) {
  const std::string folder = keychainFolder();
  if (!FileManager::defaultManager()->createDirectoryAtPath(folder, true)) return errSecIO;
  int error = 0;
  const FileDescriptor lock = FileDescriptor::open(folder + "/lock", O_RDWR | O_CREAT, error);
  if (!lock || lock.lock(LOCK_EX) != 0) return errSecIO;
  KeychainFile file(folder, service);
  if (const OSStatus status = file.read()) return status;
  if (const OSStatus status = change(file)) return status;
  return file.write();
}

bool isWellFormed(const KeychainQuery& query) {
  return !query.service.empty() && !query.account.empty() && isValidUTF8(query.service);
}

/// A new item, or a new value of one that is there, which keeps its accessibility.
OSStatus setInto(KeychainFile& file, const KeychainNewItem& given) {
  // Damage that nobody can repair must not keep new values out for ever.
  if (file.isDamaged() && !file.setAside()) return errSecIO;
  KeychainItem item{given.query.account, given.query.generic, given.accessibility, {}};
  KeychainItem* const there = file.find(given.query);
  if (isClosedByDeviceLock(there != nullptr ? *there : item)) {
    return errSecInteractionNotAllowed;
  }
  if (there != nullptr) return sealInto(*there, given.query.service, given.value);
  if (const OSStatus status = sealInto(item, given.query.service, given.value)) return status;
  file.items().push_back(std::move(item));
  return errSecSuccess;
}

/// Nothing that is thrown on the way leaves the keychain.
template <class Work>
OSStatus contained(Work work) noexcept {
  try {
    return work();
  } catch (...) {
    return errSecIO;
  }
}

}  // namespace

OSStatus SecItemAdd(const KeychainQuery& query, const Data& value,
                    KeychainAccessibility accessibility) {
  if (!isWellFormed(query)) return errSecParam;
  return contained([&] {
    return changed(query.service, [&](KeychainFile& file) -> OSStatus {
      if (isClosedByDeviceLock({{}, {}, accessibility, {}})) return errSecInteractionNotAllowed;
      if (file.find(query) != nullptr) return errSecDuplicateItem;
      return setInto(file, {query, value, accessibility});
    });
  });
}

OSStatus SecItemsSet(const std::vector<KeychainNewItem>& items) {
  if (items.empty()) return errSecSuccess;
  return contained([&] {
    const std::string& service = items.front().query.service;
    return changed(service, [&](KeychainFile& file) -> OSStatus {
      for (const KeychainNewItem& item : items) {
        if (!isWellFormed(item.query) || item.query.service != service) return errSecParam;
        if (const OSStatus status = setInto(file, item)) return status;
      }
      return errSecSuccess;
    });
  });
}

OSStatus SecItemCopyMatching(const KeychainQuery& query, Data* value) {
  return contained([&]() -> OSStatus {
    // The file is replaced whole, so that reading needs no lock.
    KeychainFile file(keychainFolder(), query.service);
    if (const OSStatus status = file.read()) return status;
    if (file.isDamaged()) return errSecDecode;
    const KeychainItem* item = file.find(query);
    if (item == nullptr) return errSecItemNotFound;
    if (isClosedByDeviceLock(*item)) return errSecInteractionNotAllowed;
    SealingKey key;
    const OSStatus status = readKey(key);
    // Items without their key are damaged, not missing.
    if (status != errSecSuccess) return status == errSecItemNotFound ? errSecDecode : status;
    if (const OSStatus bound = bindKey(key, item->accessibility)) return bound;
    auto plain = unseal(key, item->sealed, contextOf(query.service, *item));
    if (!plain) return errSecDecode;
    if (value != nullptr) *value = Data(*std::move(plain));
    return errSecSuccess;
  });
}

OSStatus SecItemUpdate(const KeychainQuery& query, const Data& value) {
  return contained([&] {
    return changed(query.service, [&](KeychainFile& file) -> OSStatus {
      if (file.isDamaged()) return errSecDecode;
      KeychainItem* item = file.find(query);
      if (item == nullptr) return errSecItemNotFound;
      if (isClosedByDeviceLock(*item)) return errSecInteractionNotAllowed;
      return sealInto(*item, query.service, value);
    });
  });
}

OSStatus SecItemDelete(const KeychainQuery& query) {
  return contained([&] {
    return changed(query.service, [&](KeychainFile& file) -> OSStatus {
      if (file.isDamaged()) return errSecDecode;
      KeychainItem* item = file.find(query);
      if (item == nullptr) return errSecItemNotFound;
      if (isClosedByDeviceLock(*item)) return errSecInteractionNotAllowed;
      file.items().erase(file.items().begin() + (item - file.items().data()));
      return errSecSuccess;
    });
  });
}

bool DeviceLock::isLocked() noexcept {
  return deviceLocked.load(std::memory_order_relaxed);
}
void DeviceLock::setLocked(bool locked) noexcept {
  deviceLocked.store(locked, std::memory_order_relaxed);
}

}  // namespace skelda::platform
