#include "Platform/Foundation/FileCalls.h"

#include <dirent.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>

#include "Platform/Base/Descriptor.h"
#include "Platform/Base/NeverDestroyed.h"

namespace skelda::platform {

namespace {

constinit std::atomic<FileCalls*> installed{nullptr};

}  // namespace

FileCalls& FileCalls::current() noexcept {
  static NeverDestroyed<FileCalls> plain;
  FileCalls* calls = installed.load(std::memory_order_acquire);
  return calls != nullptr ? *calls : *plain;
}

void FileCalls::install(FileCalls* calls) noexcept {
  installed.store(calls, std::memory_order_release);
}

int FileCalls::open(const char* path, int flags, ::mode_t mode) {
  return aboveStandardDescriptors(::open(path, flags | O_CLOEXEC, mode));
}
int FileCalls::close(int fd) {
  return ::close(fd);
}
::ssize_t FileCalls::read(int fd, void* bytes, std::size_t length, ::off_t offset) {
  return ::pread(fd, bytes, length, offset);
}
::ssize_t FileCalls::write(int fd, const void* bytes, std::size_t length, ::off_t offset) {
  return offset == kAtEnd ? ::write(fd, bytes, length) : ::pwrite(fd, bytes, length, offset);
}
int FileCalls::alwaysAppend(int fd) {
  const int flags = ::fcntl(fd, F_GETFL);
  return flags < 0 ? flags : ::fcntl(fd, F_SETFL, flags | O_APPEND);
}
int FileCalls::status(int fd, struct ::stat* status) {
  return ::fstat(fd, status);
}
int FileCalls::statusAt(const char* path, struct ::stat* status) {
  return ::stat(path, status);
}
int FileCalls::linkStatusAt(const char* path, struct ::stat* status) {
  return ::lstat(path, status);
}
int FileCalls::fileSystemAt(const char* path, struct ::statvfs* status) {
  return ::statvfs(path, status);
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
int FileCalls::removeDirectory(const char* path) {
  return ::rmdir(path);
}
::ssize_t FileCalls::entries(int fd, void* room, std::size_t length) {
  return ::getdents64(fd, room, length);
}
int FileCalls::lock(int fd, int operation) {
  return ::flock(fd, operation);
}
::ssize_t FileCalls::attribute(const char* path, const char* name, void* value,
                               std::size_t length) {
  return ::getxattr(path, name, value, length);
}
int FileCalls::setAttribute(const char* path, const char* name, const void* value,
                            std::size_t length) {
  return ::setxattr(path, name, value, length, 0);
}

}  // namespace skelda::platform
