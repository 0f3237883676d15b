#include "Platform/Foundation/FileCalls.h"

#include <stdio.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace skelda::platform {

namespace {

constinit std::atomic<FileCalls*> installed{nullptr};

}  // namespace

FileCalls& FileCalls::current() noexcept {
  // Never destroyed: files may be written while the process exits.
  static FileCalls& plain = *new FileCalls;
  FileCalls* calls = installed.load(std::memory_order_acquire);
  return calls != nullptr ? *calls : plain;
}

void FileCalls::install(FileCalls* calls) noexcept {
  installed.store(calls, std::memory_order_release);
}

int FileCalls::open(const char* path, int flags, ::mode_t mode) {
  return ::open(path, flags | O_CLOEXEC, mode);
}
int FileCalls::close(int fd) {
  return ::close(fd);
}
::ssize_t FileCalls::read(int fd, void* bytes, std::size_t length, ::off_t offset) {
  return ::pread(fd, bytes, length, offset);
}
::ssize_t FileCalls::write(int fd, const void* bytes, std::size_t length, ::off_t offset) {
  return ::pwrite(fd, bytes, length, offset);
}
int FileCalls::status(int fd, struct ::stat* status) {
  return ::fstat(fd, status);
}
int FileCalls::truncate(int fd, ::off_t length) {
  return ::ftruncate(fd, length);
}
int FileCalls::allocate(int fd, ::off_t length) {
  return ::fallocate(fd, 0, 0, length);
}
int FileCalls::syncData(int fd) {
  return ::fdatasync(fd);
}
int FileCalls::sync(int fd) {
  return ::fsync(fd);
}
::ssize_t FileCalls::copyRange(int from, ::off_t* fromOffset, int to, ::off_t* toOffset,
                               std::size_t length) {
  return ::copy_file_range(from, fromOffset, to, toOffset, length, 0);
}
int FileCalls::rename(const char* from, const char* to) {
  return ::rename(from, to);
}
int FileCalls::renameNoReplace(const char* from, const char* to) {
  return ::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE);
}
int FileCalls::link(const char* from, const char* to) {
  return ::link(from, to);
}
int FileCalls::unlink(const char* path) {
  return ::unlink(path);
}
int FileCalls::makeDirectory(const char* path, ::mode_t mode) {
  return ::mkdir(path, mode);
}
int FileCalls::lock(int fd, int operation) {
  return ::flock(fd, operation);
}
int FileCalls::setAttribute(const char* path, const char* name, const void* value,
                            std::size_t length) {
  return ::setxattr(path, name, value, length, 0);
}

}  // namespace skelda::platform
