#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>

namespace skelda::platform {

/// The system calls under files, one method each, with the results of the calls themselves: -1 and
/// errno on failure. They forward; a test installs an object that overrides the ones it wants to
/// break. To be called through fileCall(), which repeats what was interrupted.
class FileCalls {
 public:
  virtual ~FileCalls() = default;
  /// The installed object, or the plain calls.
  static FileCalls& current() noexcept;
  /// Null takes the plain calls back. What is installed must outlive its use.
  static void install(FileCalls* calls) noexcept;

  /// Always with O_CLOEXEC, and never 0, 1 or 2.
  virtual int open(const char* path, int flags, ::mode_t mode);
  virtual int close(int fd);
  virtual ::ssize_t read(int fd, void* bytes, std::size_t length, ::off_t offset);
  /// At kAtEnd: where the file ends by then, of a file that alwaysAppend() was said of.
  virtual ::ssize_t write(int fd, const void* bytes, std::size_t length, ::off_t offset);
  static constexpr ::off_t kAtEnd = -1;
  virtual int alwaysAppend(int fd);
  virtual int status(int fd, struct ::stat* status);
  virtual int statusAt(const char* path, struct ::stat* status);
  /// Of a link itself.
  virtual int linkStatusAt(const char* path, struct ::stat* status);
  virtual int fileSystemAt(const char* path, struct ::statvfs* status);
  virtual int truncate(int fd, ::off_t length);
  /// All blocks up to that length, without a shared one or a hole.
  virtual int allocate(int fd, ::off_t length);
  virtual int syncData(int fd);
  virtual int sync(int fd);
  virtual ::ssize_t copyRange(int from, ::off_t* fromOffset, int to, ::off_t* toOffset,
                              std::size_t length);
  virtual ::ssize_t attribute(const char* path, const char* name, void* value, std::size_t length);
  virtual int rename(const char* from, const char* to);
  virtual int renameNoReplace(const char* from, const char* to);
  virtual int link(const char* from, const char* to);
  virtual int unlink(const char* path);
  virtual int makeDirectory(const char* path, ::mode_t mode);
  virtual int removeDirectory(const char* path);
  /// The next entries of a folder, as many as the room takes, each a dirent64; 0 at the end.
  virtual ::ssize_t entries(int fd, void* room, std::size_t length);
  virtual int lock(int fd, int operation);
  virtual int setAttribute(const char* path, const char* name, const void* value,
                           std::size_t length);
};

/// One call, made again for as long as it is interrupted. All calls go through here but close(),
/// after which the number may be another file's whatever came back.
///
///     fileCall<&FileCalls::rename>(from.c_str(), to.c_str())
template <auto Call, class... Arguments>
auto fileCall(Arguments... arguments) {
  while (true) {
    const auto result = (FileCalls::current().*Call)(arguments...);
    if (result >= 0 || errno != EINTR) return result;
  }
}

/// The same, where only success counts: 0 or errno.
template <auto Call, class... Arguments>
int fileError(Arguments... arguments) {
  return fileCall<Call>(arguments...) < 0 ? errno : 0;
}

}  // namespace skelda::platform
