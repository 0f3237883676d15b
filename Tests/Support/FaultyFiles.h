#pragma once

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "Platform/Foundation/FileCalls.h"
#include "Platform/Platform.h"
#include "Tests/Support/FaultPlan.h"

namespace skelda::testing {

using FaultPlanRef = std::shared_ptr<FaultPlan>;

/// System calls that fail as planned, installed for as long as the object lives. Kinds are the
/// method names of platform::FileCalls. A short length makes a read, write or copy do only so much
/// and succeed, as the kernel may. With a text, only calls on paths that hold it are planned.
class FaultyFileCalls : public platform::FileCalls {
 public:
  explicit FaultyFileCalls(FaultPlanRef plan, std::string only = {})
      : plan_(std::move(plan)), only_(std::move(only)) {
    install(this);
  }
  ~FaultyFileCalls() override { install(nullptr); }

  int open(const char* path, int flags, ::mode_t mode) override {
    return fails("open", path) ? -1 : FileCalls::open(path, flags, mode);
  }
  ::ssize_t read(int fd, void* bytes, std::size_t length, ::off_t offset) override {
    return limited("read", fd, length,
                   [&](std::size_t n) { return FileCalls::read(fd, bytes, n, offset); });
  }
  ::ssize_t write(int fd, const void* bytes, std::size_t length, ::off_t offset) override {
    return limited("write", fd, length,
                   [&](std::size_t n) { return FileCalls::write(fd, bytes, n, offset); });
  }
  int close(int fd) override {
    const bool isToFail = fails("close", fd);
    const int error = errno;
    const int result = FileCalls::close(fd);
    errno = isToFail ? error : errno;
    return isToFail ? -1 : result;
  }
  int status(int fd, struct ::stat* status) override {
    return fails("status", fd) ? -1 : FileCalls::status(fd, status);
  }
  int statusAt(const char* path, struct ::stat* status) override {
    return fails("statusAt", path) ? -1 : FileCalls::statusAt(path, status);
  }
  int linkStatusAt(const char* path, struct ::stat* status) override {
    return fails("linkStatusAt", path) ? -1 : FileCalls::linkStatusAt(path, status);
  }
  int truncate(int fd, ::off_t length) override {
    return fails("truncate", fd) ? -1 : FileCalls::truncate(fd, length);
  }
  int allocate(int fd, ::off_t length) override {
    return fails("allocate", fd) ? -1 : FileCalls::allocate(fd, length);
  }
  int syncData(int fd) override { return fails("syncData", fd) ? -1 : FileCalls::syncData(fd); }
  int sync(int fd) override { return fails("sync", fd) ? -1 : FileCalls::sync(fd); }
  ::ssize_t copyRange(int from, ::off_t* fromOffset, int to, ::off_t* toOffset,
                      std::size_t length) override {
    return limited("copyRange", from, length, [&](std::size_t n) {
      return FileCalls::copyRange(from, fromOffset, to, toOffset, n);
    });
  }
  int rename(const char* from, const char* to) override {
    return fails("rename", to) ? -1 : FileCalls::rename(from, to);
  }
  int renameNoReplace(const char* from, const char* to) override {
    return fails("renameNoReplace", to) ? -1 : FileCalls::renameNoReplace(from, to);
  }
  int link(const char* from, const char* to) override {
    return fails("link", to) ? -1 : FileCalls::link(from, to);
  }
  int unlink(const char* path) override {
    return fails("unlink", path) ? -1 : FileCalls::unlink(path);
  }
  int makeDirectory(const char* path, ::mode_t mode) override {
    return fails("makeDirectory", path) ? -1 : FileCalls::makeDirectory(path, mode);
  }
  int removeDirectory(const char* path) override {
    return fails("removeDirectory", path) ? -1 : FileCalls::removeDirectory(path);
  }
  ::ssize_t entries(int fd, void* room, std::size_t length) override {
    return fails("entries", fd) ? -1 : FileCalls::entries(fd, room, length);
  }
  int lock(int fd, int operation) override {
    return fails("lock", fd) ? -1 : FileCalls::lock(fd, operation);
  }
  ::ssize_t attribute(const char* path, const char* name, void* value,
                      std::size_t length) override {
    return fails("attribute", path) ? -1 : FileCalls::attribute(path, name, value, length);
  }
  int setAttribute(const char* path, const char* name, const void* value,
                   std::size_t length) override {
    return fails("setAttribute", path) ? -1 : FileCalls::setAttribute(path, name, value, length);
  }

 private:
  // Nothing is allocated here: allocations may be what fails.
  bool concerns(std::string_view path) const { return path.find(only_) != path.npos; }
  bool concerns(int fd) const {
    if (only_.empty()) return true;
    char link[32], path[4096];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const auto length = ::readlink(link, path, sizeof path);
    return length > 0 && concerns(std::string_view(path, static_cast<std::size_t>(length)));
  }
  std::optional<Fault> faultAt(const char* kind, auto where) {
    return concerns(where) ? plan_->next(kind) : std::nullopt;
  }
  bool fails(const char* kind, auto where) {
    const auto fault = faultAt(kind, where);
    if (fault) errno = fault->error;
    return fault.has_value();
  }
  template <class Call>
  ::ssize_t limited(const char* kind, int fd, std::size_t length, Call call) {
    const auto fault = faultAt(kind, fd);
    if (!fault) return call(length);
    if (!fault->shortLength) return errno = fault->error, -1;
    // Half of one byte would be the end of the file.
    const std::size_t half = std::max(length / 2, std::min<std::size_t>(length, 1));
    const auto done =
        call(std::min(fault->shortLength == Fault::kHalf ? half : *fault->shortLength, length));
    if (fault->kills) ::kill(::getpid(), SIGKILL);
    return done;
  }

  FaultPlanRef plan_;
  const std::string only_;
};

}  // namespace skelda::testing
