#include <cerrno>
#include <memory>
#include <vector>

#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileDescriptor.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/FolderMaking.h"

namespace {

using platform::FileManager;

/// The storage folder as it was found. Readers take no lock: it is on the path of every frame.
struct StorageFolder {
  std::atomic<const std::string*> found{nullptr};
  platform::Mutex mutex;
  /// Those above it in which something new stands that is not on disk for good yet.
  std::vector<std::string> unsynchronized GUARDED_BY(mutex);
  /// Every folder that was ever found, so that a reader's is never freed under it.
  std::vector<std::unique_ptr<const std::string>> kept GUARDED_BY(mutex);
};

StorageFolder& storageFolder() {
  static platform::NeverDestroyed<StorageFolder> shared;
  return *shared;
}

std::string_view classNameOf(const platform::Value& object) {
  using Kind = platform::Value::Kind;
  switch (object.kind()) {
    case Kind::null:
      return "NSNull";
    case Kind::text:
      return "NSString";
    case Kind::data:
      return "NSData";
    case Kind::date:
      return "NSDate";
    case Kind::array:
      return "NSArray";
    case Kind::dictionary:
      return "NSDictionary";
    default:
      return "NSNumber";
  }
}

/// Whether what stands in a file's place has been moved out of the way.
bool setAside(const std::string& path) {
  const std::string aside =
      SkeldaAgentFiles::setAside(path, platform::Date::now().timeIntervalSince1970());
  if (platform::fileError<&platform::FileCalls::renameNoReplace>(path.c_str(), aside.c_str()) !=
      0) {
    return false;
  }
  SKELDA_LOG(0, "Skelda: {} is no file, kept as {}", path, aside);
  return true;
}

}  // namespace

std::string SkeldaUtil::filePathDirectory() {
  StorageFolder& folder = storageFolder();
  if (const std::string* found = folder.found.load(std::memory_order_acquire)) return *found;
  const platform::MutexLock lock(folder.mutex);
  if (const std::string* found = folder.found.load(std::memory_order_acquire)) return *found;
  std::string path = SkeldaAgentFiles::storageFolderPath();
  // Without waiting for the disk: the first call comes from a host's own thread.
  if (!platform::makeFolders(path, folder.unsynchronized)) return path;
  addSkipBackupAttributeToItemAtURL(path);
  SKELDA_LOG(2, "Skelda: SkeldaSession directory path [{}]", path);
  if (!platform::Bundle::main()->bundleIdentifier()) {
    SKELDA_NOTICE_ONCE(
        "Skelda: no CFBundleIdentifier in the Info.plist: files are kept in {}, under the name of "
        "the bundle's folder. Give it an identifier, so that no other application shares them",
        path);
  }
  folder.kept.push_back(std::make_unique<const std::string>(path));
  folder.found.store(folder.kept.back().get(), std::memory_order_release);
  return path;
}

bool SkeldaUtil::synchronizeFilePathDirectory() noexcept {
  return skelda::guardedResult(false, [] {
    StorageFolder& folder = storageFolder();
    std::vector<std::string> folders;
    {
      const platform::MutexLock lock(folder.mutex);
      folders.swap(folder.unsynchronized);
    }
    if (folders.empty()) {
      // A run before may have made them and have been killed before it came to this.
      const auto above = platform::parentFolder(filePathDirectory());
      folders = {platform::parentFolder(above), above};
    }
    platform::ErrorRef error;
    if (platform::synchronizeFolders(folders, &error)) return true;
    SKELDA_LOG(1, "{}: {}", "+[SkeldaUtil synchronizeFilePathDirectory]",
               platform::description(error));
    return false;
  });
}

void SkeldaUtil::resetFilePathDirectory() {
  storageFolder().found.store(nullptr, std::memory_order_release);
}

bool SkeldaUtil::addSkipBackupAttributeToItemAtURL(const std::string& path) noexcept {
  return skelda::guardedResult(
      false, [&] { return FileManager::defaultManager()->excludeFromBackup(path); });
}

bool SkeldaUtil::archiveObject(const platform::Value& object, const std::string& path) noexcept {
  if (object.dictionary() != nullptr) return archiveDictionary(object, path);
  return skelda::guardedResult(false, [&] {
    return _archiveObject({std::string(classNameOf(object)), object}, path);
  });
}

bool SkeldaUtil::archiveObject(const platform::KeyedArchive& object,
                               const std::string& path) noexcept {
  return _archiveObject(object, path);
}

bool SkeldaUtil::archiveDictionary(const platform::Value& dictionary,
                                   const std::string& path) noexcept {
  return skelda::guardedResult(false, [&] {
    if (dictionary.dictionary() == nullptr) {
      SKELDA_LOG(2, "{}: Bad object. Attempted to save map to disk at path[{}]",
                 "+[SkeldaUtil archiveDictionary:toFile:]", path);
      return false;
    }
    return storeArchive(
        platform::archivedData(classNameOf(dictionary), platform::archivedText(dictionary)), path);
  });
}

bool SkeldaUtil::_archiveObject(const platform::KeyedArchive& object,
                                const std::string& path) noexcept {
  return skelda::guardedResult(false,
                               [&] { return storeArchive(platform::archivedData(object), path); });
}

bool SkeldaUtil::storeArchive(const platform::Data& archive, const std::string& path) noexcept {
  constexpr std::string_view kMethod = "+[SkeldaUtil _archiveObject:toPath:]";
  return skelda::guardedResult(false, [&] {
    const bool saved = FileManager::defaultManager()->writeData(archive, path, true);
    if (saved) {
      SKELDA_LOG(2, "{}: map saved to disk at path[{}]", kMethod, path);
    } else {
      SKELDA_LOG(2, "{}: map not saved to disk at path[{}]", kMethod, path);
    }
    return saved;
  });
}

std::optional<platform::KeyedArchive> SkeldaUtil::safeUnarchiveObjectWithFile(
    const std::optional<std::string>& path, platform::ErrorRef* error) noexcept {
  platform::setError(error, nullptr);
  if (!path || path->empty()) return std::nullopt;
  try {
    platform::ErrorRef failure;
    const auto data = FileManager::defaultManager()->contentsAtPath(*path, &failure);
    if (!data) {
      const bool absent = failure->code() == ENOENT || failure->code() == ENOTDIR;
      const bool isGone = platform::isNoFile(static_cast<int>(failure->code())) && setAside(*path);
      if (!absent && !isGone) platform::setError(error, std::move(failure));
      return std::nullopt;
    }
    return platform::unarchivedObject(*data);
  } catch (const platform::Exception& malformed) {
    handleException(malformed);
    _removeObjectAtPath(*path);
  } catch (...) {
    // Want of memory says nothing about the file.
    handleException(std::current_exception());
    skelda::guardedResult(0, [&] {
      platform::setError(error, platform::posixError(ENOMEM, *path));
      return 0;
    });
  }
  return std::nullopt;
}

bool SkeldaUtil::removeObjectAtPath(const std::string& path) noexcept {
  return _removeObjectAtPath(path);
}

bool SkeldaUtil::_removeObjectAtPath(const std::string& path) noexcept {
  return skelda::guardedResult(false, [&] {
    platform::ErrorRef error;
    if (FileManager::defaultManager()->removeItemAtPath(path, &error)) return true;
    SKELDA_LOG(2, "Skelda: failed to remove object: {}", platform::description(error));
    return false;
  });
}

bool SkeldaUtil::dataExistsAtPath(const std::string& path) noexcept {
  return skelda::guardedResult(
      false, [&] { return FileManager::defaultManager()->fileExistsAtPath(path); });
}
