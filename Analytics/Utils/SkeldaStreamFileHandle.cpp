#include "Analytics/Utils/SkeldaStreamFileHandle.h"

#include <utility>

#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaStreamErrorConstants.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

using Errors = SkeldaStreamErrorConstants;

/// One lock for all handles of the process. Never destroyed: frames are written while it exits.
platform::RecursiveMutex& fileHandleLock() {
  static platform::NeverDestroyed<platform::RecursiveMutex> lock;
  return *lock;
}

void fail(platform::ErrorRef* error, Errors::Code code) {
  platform::setError(error, Errors::errorFor(code));
}

/// Runs `operation`; whatever it throws is reported and given to `caught` as text.
template <class Operation, class Caught>
bool succeeds(Operation operation, Caught caught) {
  return skelda::guardedResult(
      false,
      [&] {
        operation();
        return true;
      },
      caught);
}

constexpr auto kSilently = [](const std::string&) {};

/// Whether a path has a file URL.
bool hasURL(const std::string& path) {
  return !path.empty() && path.find('\0') == std::string::npos && platform::isValidUTF8(path);
}

}  // namespace

std::shared_ptr<SkeldaStreamFileHandle> SkeldaStreamFileHandle::fileHandle() {
  return platform::makeCounted<SkeldaStreamFileHandle>();
}

std::shared_ptr<platform::FileHandle> SkeldaStreamFileHandle::fileHandleForWritingAtPath(
    const std::string& path) const {
  return platform::FileHandle::forWritingAtPath(path);
}

std::shared_ptr<platform::FileHandle> SkeldaStreamFileHandle::fileHandleForReadingAtPath(
    const std::string& path) const {
  return platform::FileHandle::forReadingAtPath(path);
}

bool SkeldaStreamFileHandle::isOpenFile(const Path& path) {
  const platform::RecursiveMutexLock lock(fileHandleLock());
  return SkeldaUtil::assertNotNil(path) && fileHandle_ != nullptr && openFilePath_ == path;
}

void SkeldaStreamFileHandle::openForWritingFile(const Path& path, platform::ErrorRef* error) {
  openFile(path, Mode::writing, "-[SkeldaStreamFileHandle openForWritingFile:error:]", error);
}

void SkeldaStreamFileHandle::openForReadingFile(const Path& path, platform::ErrorRef* error) {
  openFile(path, Mode::reading, "-[SkeldaStreamFileHandle openForReadingFile:error:]", error);
}

void SkeldaStreamFileHandle::openFile(const Path& path, Mode mode, std::string_view method,
                                      platform::ErrorRef* error) {
  const platform::RecursiveMutexLock lock(fileHandleLock());
  platform::setError(error, nullptr);
  if (!SkeldaUtil::assertNotNil(path, method)) return fail(error, Errors::kFunctionGuardFailure);
  if (!hasURL(*path)) {
    SKELDA_LOG(1, "{}: unable to convert {} to URL", method, *path);
    return fail(error, Errors::kURLCreationFailure);
  }
  // A handle that is still held is let go, not closed: another owner may be using it.
  fileHandle_ = nullptr;
  succeeds(
      [&] {
        fileHandle_ = mode == Mode::writing ? fileHandleForWritingAtPath(*path)
                                            : fileHandleForReadingAtPath(*path);
      },
      kSilently);
  if (fileHandle_ == nullptr) {
    SKELDA_LOG(1, "{}: No file at path {}", method, *path);
    return fail(error, Errors::kFileOpenFailure);
  }
  openFilePath_ = path;
  if (mode == Mode::writing) SkeldaUtil::addSkipBackupAttributeToItemAtURL(*path);
}

std::optional<platform::Data> SkeldaStreamFileHandle::readDataOfLength(std::size_t length,
                                                                       platform::ErrorRef* error) {
  constexpr std::string_view kMethod = "-[SkeldaStreamFileHandle readDataOfLength:error:]";
  const platform::RecursiveMutexLock lock(fileHandleLock());
  platform::setError(error, nullptr);
  if (!SkeldaUtil::assertNotNil(fileHandle_, kMethod) ||
      !SkeldaUtil::assert_(length != 0, kMethod)) {
    fail(error, Errors::kFunctionGuardFailure);
    return std::nullopt;
  }
  std::optional<platform::Data> data;
  succeeds([&] { data = fileHandle_->readDataOfLength(length); },
           [&](const std::string& exception) {
             SKELDA_LOG(1, "{}, exception while reading {}", kMethod, exception);
             SkeldaUtil::assert_(false, kMethod);
             fail(error, Errors::kFileReadFailure);
           });
  return data;
}

std::optional<platform::Data> SkeldaStreamFileHandle::availableDataWithError(
    platform::ErrorRef* error) {
  constexpr std::string_view kMethod = "-[SkeldaStreamFileHandle availableDataWithError:]";
  const platform::RecursiveMutexLock lock(fileHandleLock());
  platform::setError(error, nullptr);
  if (!SkeldaUtil::assertNotNil(fileHandle_, kMethod)) {
    fail(error, Errors::kFunctionGuardFailure);
    return std::nullopt;
  }
  std::optional<platform::Data> data;
  succeeds([&] { data = fileHandle_->readDataToEndOfFile(); },
           [&](const std::string&) { fail(error, Errors::kFileReadFailure); });
  return data;
}

std::optional<platform::Data> SkeldaStreamFileHandle::contentsOfFile(const Path& path,
                                                                     platform::ErrorRef* error) {
  // The lock is waited for once, and not behind each frame that is being written meanwhile.
  const platform::RecursiveMutexLock lock(fileHandleLock());
  return ISkeldaStreamFileHandle::contentsOfFile(path, error);
}

bool SkeldaStreamFileHandle::seekToEndOfFile() {
  const platform::RecursiveMutexLock lock(fileHandleLock());
  if (!SkeldaUtil::assertNotNil(fileHandle_)) return false;
  return succeeds([&] { fileHandle_->seekToEndOfFile(); },
                  [](const std::string& exception) {
                    SKELDA_LOG(1, "{}: Exception while seeking to end of file {}",
                               "-[SkeldaStreamFileHandle seekToEndOfFile]", exception);
                  });
}

void SkeldaStreamFileHandle::writeData(const std::optional<platform::Data>& data,
                                       platform::ErrorRef* error) {
  constexpr std::string_view kMethod = "-[SkeldaStreamFileHandle writeData:error:]";
  const platform::RecursiveMutexLock lock(fileHandleLock());
  platform::setError(error, nullptr);
  if (!SkeldaUtil::assertNotNil(data, kMethod) || !SkeldaUtil::assertNotNil(fileHandle_, kMethod)) {
    return fail(error, Errors::kFunctionGuardFailure);
  }
  succeeds([&] { fileHandle_->writeData(*data); },
           [&](const std::string& exception) {
             SKELDA_LOG(1, "{}, exception while writing {}", kMethod, exception);
             SkeldaUtil::assert_(false, kMethod);
             fail(error, Errors::kFileWriteFailure);
           });
}

void SkeldaStreamFileHandle::closeFile() {
  const platform::RecursiveMutexLock lock(fileHandleLock());
  if (fileHandle_ != nullptr) succeeds([&] { fileHandle_->closeFile(); }, kSilently);
  // The path stays; isOpenFile asks for the handle first.
  fileHandle_ = nullptr;
}

bool SkeldaStreamFileHandle::truncateFileToZeroBytes() {
  const platform::RecursiveMutexLock lock(fileHandleLock());
  return SkeldaUtil::assertNotNil(fileHandle_,
                                  "-[SkeldaStreamFileHandle truncateFileToZeroBytes]") &&
         succeeds([&] { fileHandle_->truncateFileAtOffset(0); }, kSilently);
}

bool SkeldaStreamFileHandle::synchronizeFile() {
  const platform::RecursiveMutexLock lock(fileHandleLock());
  return SkeldaUtil::assertNotNil(fileHandle_, "-[SkeldaStreamFileHandle synchronizeFile]") &&
         succeeds([&] { fileHandle_->synchronizeFile(); }, kSilently);
}

SkeldaStreamFileHandle::Path SkeldaStreamFileHandle::openFilePath() const {
  const platform::RecursiveMutexLock lock(fileHandleLock());
  return openFilePath_;
}
