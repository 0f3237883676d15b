#include "Analytics/Utils/SkeldaStreamFileManager.h"

#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaStreamErrorConstants.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"
#include "Platform/Foundation/FileHandle.h"

std::shared_ptr<SkeldaStreamFileManager> SkeldaStreamFileManager::fileManager() {
  return platform::makeCounted<SkeldaStreamFileManager>();
}

std::shared_ptr<platform::FileManager> SkeldaStreamFileManager::defaultFileManager() const {
  return platform::FileManager::defaultManager();
}

bool SkeldaStreamFileManager::createIfNotPresentDirectoryAtPath(const Path& path) {
  constexpr std::string_view kMethod =
      "-[SkeldaStreamFileManager createIfNotPresentDirectoryAtPath:]";
  if (!SkeldaUtil::assertNotNil(path)) return false;
  return skelda::guardedResult(false, [&] {
    const auto manager = defaultFileManager();
    if (manager->fileExistsAtPath(*path)) return true;
    platform::ErrorRef error;
    if (!manager->createDirectoryAtPath(*path, true, &error)) {
      SKELDA_LOG(1, "{}: error [{}] unable to create directory at path [{}]", kMethod,
                 platform::description(error), *path);
      return false;
    }
    if (error != nullptr) {
      SKELDA_LOG(1, "{}: error [{}] while creating file at path [{}]", kMethod,
                 platform::description(error), *path);
      return false;
    }
    return true;
  });
}

bool SkeldaStreamFileManager::copyFileFrom(const Path& source, const Path& destination) {
  constexpr std::string_view kMethod = "-[SkeldaStreamFileManager copyFileFrom:toPath:]";
  if (!SkeldaUtil::assertNotNil(source, kMethod) ||
      !SkeldaUtil::assertNotNil(destination, kMethod)) {
    return false;
  }
  return skelda::guardedResult(false, [&] {
    const auto manager = defaultFileManager();
    platform::ErrorRef error;
    const auto log = [&](unsigned level) {
      SKELDA_LOG(level, "{}: error [{}] while copying file from [{}] to [{}]", kMethod,
                 platform::description(error), *source, *destination);
    };
    if (!manager->copyItemAtPath(*source, *destination, &error) || error != nullptr) {
      if (!manager->fileExistsAtPath(*source)) {
        log(2);
        return false;
      }
      log(1);
      SkeldaUtil::assert_(false, kMethod);
      return false;
    }
    return true;
  });
}

bool SkeldaStreamFileManager::removeItemAtPath(const Path& path) {
  constexpr std::string_view kMethod = "-[SkeldaStreamFileManager removeItemAtPath:]";
  if (!SkeldaUtil::assertNotNil(path, kMethod)) return false;
  return skelda::guardedResult(false, [&] {
    const auto manager = defaultFileManager();
    platform::ErrorRef error;
    if (!manager->removeItemAtPath(*path, &error)) {
      if (!manager->fileExistsAtPath(*path)) return false;
      SKELDA_LOG(1, "{}: error [{}] removing file from [{}]", kMethod, platform::description(error),
                 *path);
      SkeldaUtil::assert_(false, kMethod);
      return false;
    }
    if (error != nullptr) {
      SKELDA_LOG(1, "{}: error [{}] while removing file from [{}]", kMethod,
                 platform::description(error), *path);
      SkeldaUtil::assert_(false, kMethod);
      return false;
    }
    return true;
  });
}

bool SkeldaStreamFileManager::truncateFileAtPath(const Path& path) {
  constexpr std::string_view kMethod = "-[SkeldaStreamFileManager truncateFileAtPath:]";
  if (!SkeldaUtil::assertNotNil(path, kMethod)) return false;
  return skelda::guardedResult(false, [&] {
    if (!defaultFileManager()->fileExistsAtPath(*path)) {
      // Said whatever the log level: a log that should be there is gone.
      SKELDA_LOG(0, "{}: No file at path {}", kMethod, *path);
      return false;
    }
    const auto handle = platform::FileHandle::forWritingAtPath(*path);
    if (handle == nullptr) return false;
    handle->truncateFileAtOffset(0);
    handle->closeFile();
    return true;
  });
}

bool SkeldaStreamFileManager::createFileAtPath(const Path& path) {
  constexpr std::string_view kMethod = "-[SkeldaStreamFileManager createFileAtPath:]";
  if (!SkeldaUtil::assertNotNil(path, kMethod)) return false;
  return skelda::guardedResult(false, [&] {
    const auto manager = defaultFileManager();
    return manager->fileExistsAtPath(*path) || manager->createFileAtPath(*path);
  });
}

bool SkeldaStreamFileManager::isFilePresentAtPath(const Path& path) {
  if (!path) return false;
  return skelda::guardedResult(false,
                               [&] { return defaultFileManager()->fileExistsAtPath(*path); });
}

std::optional<std::vector<std::string>> SkeldaStreamFileManager::fileNamesAtPath(
    const Path& path, platform::ErrorRef* error) {
  platform::ErrorRef failure;
  auto names = skelda::guardedResult(std::optional<std::vector<std::string>>(), [&] {
    return path ? defaultFileManager()->contentsOfDirectoryAtPath(*path, &failure) : std::nullopt;
  });
  if (!names && failure == nullptr) {
    failure =
        SkeldaStreamErrorConstants::errorFor(SkeldaStreamErrorConstants::kDirectoryReadFailure);
  }
  platform::setError(error, failure);
  return names;
}
