#pragma once

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <utility>

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileHandle.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Platform.h"
#include "Tests/Support/FaultPlan.h"

namespace skelda::testing {

using FaultPlanRef = std::shared_ptr<FaultPlan>;

/// System calls that fail as planned, installed for as long as the object lives. Kinds are the
/// method names of platform::FileCalls. A short length makes a read, write or copy do only so much
/// and succeed, as the kernel may.
class FaultyFileCalls : public platform::FileCalls {
 public:
  explicit FaultyFileCalls(FaultPlanRef plan) : plan_(std::move(plan)) { install(this); }
  ~FaultyFileCalls() override { install(nullptr); }

  int open(const char* path, int flags, ::mode_t mode) override {
    return fails("open") ? -1 : FileCalls::open(path, flags, mode);
  }
  ::ssize_t read(int fd, void* bytes, std::size_t length, ::off_t offset) override {
    return limited("read", length,
                   [&](std::size_t n) { return FileCalls::read(fd, bytes, n, offset); });
  }
  ::ssize_t write(int fd, const void* bytes, std::size_t length, ::off_t offset) override {
    return limited("write", length,
                   [&](std::size_t n) { return FileCalls::write(fd, bytes, n, offset); });
  }
  int close(int fd) override {
    const int result = FileCalls::close(fd);
    return fails("close") ? -1 : result;
  }
  int status(int fd, struct ::stat* status) override {
    return fails("status") ? -1 : FileCalls::status(fd, status);
  }
  int truncate(int fd, ::off_t length) override {
    return fails("truncate") ? -1 : FileCalls::truncate(fd, length);
  }
  int allocate(int fd, ::off_t length) override {
    return fails("allocate") ? -1 : FileCalls::allocate(fd, length);
  }
  int syncData(int fd) override { return fails("syncData") ? -1 : FileCalls::syncData(fd); }
  int sync(int fd) override { return fails("sync") ? -1 : FileCalls::sync(fd); }
  ::ssize_t copyRange(int from, ::off_t* fromOffset, int to, ::off_t* toOffset,
                      std::size_t length) override {
    return limited("copyRange", length, [&](std::size_t n) {
      return FileCalls::copyRange(from, fromOffset, to, toOffset, n);
    });
  }
  int rename(const char* from, const char* to) override {
    return fails("rename") ? -1 : FileCalls::rename(from, to);
  }
  int renameNoReplace(const char* from, const char* to) override {
    return fails("renameNoReplace") ? -1 : FileCalls::renameNoReplace(from, to);
  }
  int link(const char* from, const char* to) override {
    return fails("link") ? -1 : FileCalls::link(from, to);
  }
  int unlink(const char* path) override { return fails("unlink") ? -1 : FileCalls::unlink(path); }
  int makeDirectory(const char* path, ::mode_t mode) override {
    return fails("makeDirectory") ? -1 : FileCalls::makeDirectory(path, mode);
  }
  int lock(int fd, int operation) override {
    return fails("lock") ? -1 : FileCalls::lock(fd, operation);
  }
  ::ssize_t attribute(const char* path, const char* name, void* value,
                      std::size_t length) override {
    return fails("attribute") ? -1 : FileCalls::attribute(path, name, value, length);
  }
  int setAttribute(const char* path, const char* name, const void* value,
                   std::size_t length) override {
    return fails("setAttribute") ? -1 : FileCalls::setAttribute(path, name, value, length);
  }

 private:
  bool fails(const char* kind) {
    const auto fault = plan_->next(kind);
    if (fault) errno = fault->error;
    return fault.has_value();
  }
  template <class Call>
  ::ssize_t limited(const char* kind, std::size_t length, Call call) {
    const auto fault = plan_->next(kind);
    if (!fault) return call(length);
    if (fault->shortLength) return call(std::min(*fault->shortLength, length));
    errno = fault->error;
    return -1;
  }

  FaultPlanRef plan_;
};

/// The platform's file manager, failing as planned.
class FaultyFileManager : public platform::FileManager {
 public:
  explicit FaultyFileManager(FaultPlanRef plan) : plan_(std::move(plan)) {}

  bool fileExistsAtPath(const std::string& path) const override {
    return !fails("fileExistsAtPath", path, nullptr) && FileManager::fileExistsAtPath(path);
  }
  bool createDirectoryAtPath(const std::string& path, bool intermediates,
                             platform::ErrorRef* error) override {
    return !fails("createDirectoryAtPath", path, error) &&
           FileManager::createDirectoryAtPath(path, intermediates, error);
  }
  bool copyItemAtPath(const std::string& source, const std::string& destination,
                      platform::ErrorRef* error) override {
    return !fails("copyItemAtPath", destination, error) &&
           FileManager::copyItemAtPath(source, destination, error);
  }
  bool removeItemAtPath(const std::string& path, platform::ErrorRef* error) override {
    return !fails("removeItemAtPath", path, error) && FileManager::removeItemAtPath(path, error);
  }
  bool createFileAtPath(const std::string& path, const platform::Data& contents,
                        platform::ErrorRef* error) override {
    return !fails("createFileAtPath", path, error) &&
           FileManager::createFileAtPath(path, contents, error);
  }
  std::optional<std::vector<std::string>> contentsOfDirectoryAtPath(
      const std::string& path, platform::ErrorRef* error) const override {
    if (fails("contentsOfDirectoryAtPath", path, error)) return std::nullopt;
    return FileManager::contentsOfDirectoryAtPath(path, error);
  }
  std::optional<platform::Data> contentsAtPath(const std::string& path,
                                               platform::ErrorRef* error) const override {
    if (fails("contentsAtPath", path, error)) return std::nullopt;
    return FileManager::contentsAtPath(path, error);
  }
  bool writeData(const platform::Data& data, const std::string& path, bool atomically,
                 platform::ErrorRef* error) override {
    return !fails("writeData", path, error) &&
           FileManager::writeData(data, path, atomically, error);
  }

 private:
  bool fails(const char* kind, const std::string& path, platform::ErrorRef* error) const {
    const auto fault = plan_->next(kind);
    if (!fault) return false;
    if (fault->raises) throw platform::Exception("NSFileManagerFault", path);
    platform::setError(error, platform::posixError(fault->error, path));
    return true;
  }

  FaultPlanRef plan_;
};

/// A platform file handle that forwards, and raises as planned. A write with a short length leaves
/// that many bytes in the file, as a process killed in the middle would.
class FaultyFileHandle : public platform::FileHandle {
 public:
  FaultyFileHandle(FaultPlanRef plan, std::shared_ptr<platform::FileHandle> target)
      : plan_(std::move(plan)), target_(std::move(target)) {}

  platform::Data readDataOfLength(std::size_t length) override {
    check("readDataOfLength");
    return target_->readDataOfLength(length);
  }
  platform::Data readDataToEndOfFile() override {
    check("readDataToEndOfFile");
    return target_->readDataToEndOfFile();
  }
  std::uint64_t seekToEndOfFile() override {
    check("seekToEndOfFile");
    return target_->seekToEndOfFile();
  }
  void writeData(const platform::Data& data) override {
    if (const auto fault = plan_->next("writeData")) {
      if (fault->shortLength) {
        target_->writeData(
            platform::Data(data.view().data(), std::min(*fault->shortLength, data.length())));
      }
      raise("writeData", fault->error);
    }
    target_->writeData(data);
  }
  void truncateFileAtOffset(std::uint64_t offset) override {
    check("truncateFileAtOffset");
    target_->truncateFileAtOffset(offset);
  }
  void synchronizeFile() override {
    check("synchronizeFile");
    target_->synchronizeFile();
  }
  void closeFile() override {
    check("closeFile");
    target_->closeFile();
  }

 private:
  void check(const char* kind) {
    if (const auto fault = plan_->next(kind)) raise(kind, fault->error);
  }
  [[noreturn]] static void raise(const char* kind, int error) {
    throw platform::Exception("NSFileHandleOperationException",
                              std::string(kind) + ": errno " + std::to_string(error));
  }

  FaultPlanRef plan_;
  std::shared_ptr<platform::FileHandle> target_;
};

}  // namespace skelda::testing
