#include "Platform/Foundation/FileDescriptor.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>

#include "Platform/Foundation/FileCalls.h"

namespace skelda::platform {

namespace {

/// Files that do not tell their size are read in steps of this, and copies move so much at a time.
constexpr std::size_t kReadStep = std::size_t{4} << 10;
constexpr std::size_t kCopyStep = std::size_t{1} << 30;

/// Whether the kernel says that it cannot copy between these two files, not that a copy failed.
bool cannotCopyRange(int error) {
  return error == EXDEV || error == EINVAL || error == ENOSYS || error == EOPNOTSUPP ||
         error == EPERM || error == ETXTBSY;
}

}  // namespace

FileDescriptor& FileDescriptor::operator=(FileDescriptor&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = std::exchange(other.fd_, -1);
    lengthAtOpen_ = other.lengthAtOpen_;
  }
  return *this;
}

FileDescriptor FileDescriptor::open(const std::string& path, int flags, int& error, ::mode_t mode) {
  // The kernel would take what stands before a zero byte for the whole path.
  if (path.find('\0') != std::string::npos) {
    error = EINVAL;
    return {};
  }
  const int fd = fileCall<&FileCalls::open>(path.c_str(), flags, mode);
  error = fd < 0 ? errno : 0;
  return FileDescriptor(fd);
}

FileDescriptor FileDescriptor::openFile(const std::string& path, int flags, int& error,
                                        ::mode_t mode) {
  FileDescriptor file = open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, error, mode);
  // What was not there before is a file.
  if (!file || (flags & O_EXCL) != 0) return file;
  struct ::stat kind;
  error = file.status(kind);
  if (error == 0 && !S_ISREG(kind.st_mode)) error = S_ISDIR(kind.st_mode) ? EISDIR : ENXIO;
  if (error != 0) return {};
  file.lengthAtOpen_ = kind.st_size;
  return file;
}

int FileDescriptor::close() noexcept {
  if (fd_ < 0) return 0;
  // Never again after EINTR: the number is free already and may be another file's.
  const int result = FileCalls::current().close(std::exchange(fd_, -1));
  return result < 0 && errno != EINTR ? errno : 0;
}

int FileDescriptor::writeRest(std::string_view& rest, ::off_t offset) const {
  lengthAtOpen_.reset();
  while (!rest.empty()) {
    const ::ssize_t written = fileCall<&FileCalls::write>(fd_, rest.data(), rest.size(), offset);
    if (written < 0) return errno;
    if (written == 0) return EIO;
    rest.remove_prefix(static_cast<std::size_t>(written));
    if (offset != FileCalls::kAtEnd) offset += written;
  }
  return 0;
}

int FileDescriptor::read(std::string& out, std::size_t length, ::off_t offset) const {
  if (length == 0) return 0;
  ::off_t end = 0;
  if (const int error = lengthNow(end)) return error;
  if (end <= offset) return readToEnd(out, length, offset);
  const auto rest = static_cast<std::size_t>(
      std::min<std::uint64_t>(length, static_cast<std::uint64_t>(end - offset)));
  const std::size_t begin = out.size();
  // A file may be longer than what 32 bits can hold at once.
  if (rest > out.max_size() - begin) return EFBIG;
  out.resize(begin + rest);
  std::size_t got = 0;
  while (got < rest) {
    const ::ssize_t n = fileCall<&FileCalls::read>(fd_, out.data() + begin + got, rest - got,
                                                   offset + static_cast<::off_t>(got));
    const int error = n < 0 ? errno : 0;
    if (n <= 0) {
      out.resize(error == 0 ? begin + got : begin);
      return error;
    }
    got += static_cast<std::size_t>(n);
  }
  return 0;
}

/// Of a file that does not tell its size, or grows.
int FileDescriptor::readToEnd(std::string& out, std::size_t length, ::off_t offset) const {
  const std::size_t begin = out.size();
  char step[kReadStep];
  while (length > 0) {
    const ::ssize_t n =
        fileCall<&FileCalls::read>(fd_, step, std::min(length, sizeof step), offset);
    const int error = n < 0 ? errno : 0;
    if (error != 0) out.resize(begin);
    if (n <= 0) return error;
    out.append(step, static_cast<std::size_t>(n));
    length -= static_cast<std::size_t>(n);
    offset += n;
  }
  return 0;
}

int FileDescriptor::copyFrom(const FileDescriptor& from) const {
  ::off_t fromOffset = 0;
  ::off_t toOffset = 0;
  ::off_t end = 0;
  if (const int error = from.lengthNow(end)) return error;
  while (true) {
    const ::ssize_t copied =
        fileCall<&FileCalls::copyRange>(from.fd_, &fromOffset, fd_, &toOffset, kCopyStep);
    if (copied > 0 && fromOffset == end) return 0;
    if (copied > 0) continue;
    if (copied == 0) break;
    if (!cannotCopyRange(errno)) return errno;
    break;
  }
  // What is left: everything where the kernel cannot copy, and nothing at the end of the file,
  // which some file systems only claim.
  std::string step;
  while (true) {
    step.clear();
    if (const int error = from.read(step, std::size_t{1} << 20, fromOffset)) return error;
    if (step.empty()) return 0;
    if (const int error = write(step, toOffset)) return error;
    fromOffset += static_cast<::off_t>(step.size());
    toOffset += static_cast<::off_t>(step.size());
  }
}

int FileDescriptor::status(struct ::stat& status) const {
  return fileError<&FileCalls::status>(fd_, &status);
}

int FileDescriptor::lengthNow(::off_t& length) const {
  if (lengthAtOpen_) {
    length = *std::exchange(lengthAtOpen_, std::nullopt);
    return 0;
  }
  struct ::stat now;
  const int error = status(now);
  if (error == 0) length = now.st_size;
  return error;
}

int FileDescriptor::truncate(::off_t length) const {
  lengthAtOpen_.reset();
  return fileError<&FileCalls::truncate>(fd_, length);
}

int FileDescriptor::alwaysAppend() const {
  return fileError<&FileCalls::alwaysAppend>(fd_);
}

int FileDescriptor::syncData() const {
  return fileError<&FileCalls::syncData>(fd_);
}

int FileDescriptor::lock(int operation) const {
  return fileError<&FileCalls::lock>(fd_, operation);
}

bool isNoFile(int error) noexcept {
  return error == EISDIR || error == ENXIO || error == ELOOP;
}

int synchronizeFolder(const std::string& folder) {
  int error = 0;
  const FileDescriptor fd = FileDescriptor::open(folder, O_RDONLY | O_DIRECTORY, error);
  if (!fd) return error;
  error = fileError<&FileCalls::sync>(fd.get());
  // File systems that keep folders safe by themselves say EINVAL.
  return error == EINVAL ? 0 : error;
}

std::string parentFolder(std::string_view path) {
  const std::size_t last = path.find_last_not_of('/');
  if (last == std::string_view::npos) return path.empty() ? "." : "/";
  const std::size_t slash = path.find_last_of('/', last);
  if (slash == std::string_view::npos) return ".";
  const std::size_t end = path.find_last_not_of('/', slash);
  return end == std::string_view::npos ? "/" : std::string(path.substr(0, end + 1));
}

std::optional<std::string> readWholeFile(const std::string& path, int& error) {
  const FileDescriptor fd = FileDescriptor::openFile(path, O_RDONLY, error);
  if (!fd) return std::nullopt;
  std::string bytes;
  error = fd.read(bytes, std::numeric_limits<std::size_t>::max(), 0);
  if (error != 0) return std::nullopt;
  return bytes;
}

int replaceFile(const std::string& path, const std::string& temporary, std::string_view bytes) {
  if (path.find('\0') != std::string::npos) return EINVAL;
  int error = 0;
  FileDescriptor fd =
      FileDescriptor::open(temporary, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW, error);
  if (!fd) return error;
  error = fd.write(bytes, 0);
  if (error == 0) error = fd.syncData();
  if (const int closed = fd.close(); error == 0) error = closed;
  if (error == 0) error = fileError<&FileCalls::rename>(temporary.c_str(), path.c_str());
  if (error != 0) {
    // What cannot be removed now is swept later; the first failure is the one to report.
    fileError<&FileCalls::unlink>(temporary.c_str());
    return error;
  }
  return synchronizeFolder(parentFolder(path));
}

}  // namespace skelda::platform
