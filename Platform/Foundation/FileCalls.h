#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>

namespace skelda::platform {

/// The system calls under files, one method each, with the results of the calls themselves: -1 and
/// errno on failure. They forward; a test installs an object that overrides the ones it wants to
/// break. Nothing here retries: that is the business of whoever calls.
class FileCalls {
 public:
  virtual ~FileCalls() = default;
  /// The installed object, or the plain calls.
  static FileCalls& current() noexcept;
  /// Null takes the plain calls back. What is installed must outlive its use.
  static void install(FileCalls* calls) noexcept;

  /// Always with O_CLOEXEC.
  virtual int open(const char* path, int flags, ::mode_t mode);
  virtual int close(int fd);
  virtual ::ssize_t read(int fd, void* bytes, std::size_t length, ::off_t offset);
  virtual ::ssize_t write(int fd, const void* bytes, std::size_t length, ::off_t offset);
  virtual int status(int fd, struct ::stat* status);
  virtual int truncate(int fd, ::off_t length);
  /// All blocks up to that length, without a shared one or a hole.
  virtual int allocate(int fd, ::off_t length);
  virtual int syncData(int fd);
  virtual int sync(int fd);
  virtual ::ssize_t copyRange(int from, ::off_t* fromOffset, int to, ::off_t* toOffset,
                              std::size_t length);
  virtual int rename(const char* from, const char* to);
  virtual int renameNoReplace(const char* from, const char* to);
  virtual int link(const char* from, const char* to);
  virtual int unlink(const char* path);
  virtual int makeDirectory(const char* path, ::mode_t mode);
  virtual int lock(int fd, int operation);
  virtual int setAttribute(const char* path, const char* name, const void* value,
                           std::size_t length);
};

}  // namespace skelda::platform
