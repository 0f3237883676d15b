#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace skelda::platform {

/// A descriptor that is closed with its owner, and what files need of one: short calls are gone on
/// with. Failures come back as errno, 0 being
/// success. One thread at a time.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int fd) noexcept : fd_(fd) {}
  FileDescriptor(FileDescriptor&& other) noexcept
      : fd_(std::exchange(other.fd_, -1)), lengthAtOpen_(other.lengthAtOpen_) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept;
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { close(); }

  /// Not open, and errno in `error`, on failure.
  static FileDescriptor open(const std::string& path, int flags, int& error, ::mode_t mode = 0600);
  /// A regular file, whatever somebody put in its place: no last link is followed, and nothing is
  /// waited for. Where it is something else the error is one of isNoFile().
  static FileDescriptor openFile(const std::string& path, int flags, int& error,
                                 ::mode_t mode = 0600);

  explicit operator bool() const noexcept { return fd_ >= 0; }
  int get() const noexcept { return fd_; }
  /// Hands the descriptor over to the caller.
  int release() noexcept { return std::exchange(fd_, -1); }
  /// The descriptor is gone whatever comes back.
  int close() noexcept;

  /// All of the bytes.
  int write(std::string_view bytes, ::off_t offset) const { return writeRest(bytes, offset); }
  /// The same, and takes off `rest` what is written: a failure leaves what is not. The offset may
  /// be FileCalls::kAtEnd.
  int writeRest(std::string_view& rest, ::off_t offset) const;
  /// Appends at most `length` bytes to `out`, fewer only where the file ends or ended at the call;
  /// for the first call behind openFile(), at that.
  int read(std::string& out, std::size_t length, ::off_t offset) const;
  /// Everything that `from` holds at the call, or held at an openFile() just before, from its
  /// begin, to this file's begin: shared extents or a copy inside the kernel where there is one.
  int copyFrom(const FileDescriptor& from) const;
  int status(struct ::stat& status) const;
  int truncate(::off_t length) const;
  int alwaysAppend() const;
  int syncData() const;
  /// LOCK_SH, LOCK_EX and the like of flock.
  int lock(int operation) const;

 private:
  int readToEnd(std::string& out, std::size_t length, ::off_t offset) const;
  int lengthNow(::off_t& length) const;

  int fd_ = -1;
  /// As openFile() saw it, for the first who asks; nothing once it was changed by this.
  mutable std::optional<::off_t> lengthAtOpen_;
};

/// Whether the error says that what stands in a file's place is a folder, a pipe, a link or the
/// like, and not that the file cannot be opened just now.
bool isNoFile(int error) noexcept;

/// Synchronises a folder: what was created, renamed or removed in it lasts. Errno or 0; 0 as well
/// where the file system cannot synchronise folders.
int synchronizeFolder(const std::string& folder);

/// The folder that holds `path`: "." for a bare name, "/" at the root. Slashes at the end do not
/// count.
std::string parentFolder(std::string_view path);

/// The whole file at `path`; nothing, and errno in `error`, on failure.
std::optional<std::string> readWholeFile(const std::string& path, int& error);

/// Replaces the file at `path` by one with those bytes: writes them to `temporary` (made anew,
/// removed again on failure), synchronises, renames over `path` and synchronises the folder. Errno
/// or 0.
int replaceFile(const std::string& path, const std::string& temporary, std::string_view bytes);

}  // namespace skelda::platform
