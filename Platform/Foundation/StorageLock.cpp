#include "Platform/Foundation/StorageLock.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <map>
#include <mutex>
#include <new>

#include "Platform/Foundation/FileDescriptor.h"

namespace skelda::platform {

namespace {

struct Held {
  FileDescriptor file;
  ::pid_t process;  ///< a child that was forked inherits the record, but not the lock
};

struct State {
  std::mutex mutex;
  std::map<std::string, Held> held;
};

State& state();

/// A fork waits until nobody is half way through, so that the child finds a whole record. There it
/// closes what it inherited at once: a lock lasts as long as any descriptor of it, and a child may
/// outlive the holder.
void beforeFork() {
  state().mutex.lock();
}
void afterForkInParent() {
  state().mutex.unlock();
}
void afterForkInChild() {
  state().held.clear();
  state().mutex.unlock();
}

/// Never destroyed: the locks go with the process.
State& state() {
  static State& shared = *[] {
    auto* const made = new State;
    if (::pthread_atfork(beforeFork, afterForkInParent, afterForkInChild) != 0) {
      throw std::bad_alloc();
    }
    return made;
  }();
  return shared;
}

::pid_t holderNamedIn(const FileDescriptor& file) {
  std::string text;
  ::pid_t holder = 0;
  if (file.read(text, 32, 0) == 0) {
    std::from_chars(text.data(), text.data() + text.size(), holder);
  }
  return holder;
}

StorageLock::Result failed(int error, const std::string& path) {
  return {StorageLock::Status::failed, 0, posixError(error, path)};
}

}  // namespace

std::string StorageLock::lockFilePath(const std::string& folder) {
  return folder + "/.skelda-lock";
}

StorageLock::Result StorageLock::acquire(const std::string& folder) {
  State& shared = state();
  std::lock_guard lock(shared.mutex);
  const ::pid_t self = ::getpid();
  if (const auto found = shared.held.find(folder); found != shared.held.end()) {
    if (found->second.process == self) return {Status::held, 0, nullptr};
    shared.held.erase(found);
  }
  const std::string path = lockFilePath(folder);
  int error = 0;
  FileDescriptor file = FileDescriptor::open(path, O_RDWR | O_CREAT, error);
  if (!file) return failed(error, path);
  error = file.lock(LOCK_EX | LOCK_NB);
  if (error == EWOULDBLOCK) return {Status::heldByOther, holderNamedIn(file), nullptr};
  if (error != 0) return failed(error, path);
  // The lock stands without the number; a disk too full for it is no reason to do without the lock.
  if (file.truncate(0) == 0) file.write(std::to_string(self) + "\n", 0);
  shared.held.emplace(folder, Held{std::move(file), self});
  return {Status::held, 0, nullptr};
}

void StorageLock::release(const std::string& folder) {
  State& shared = state();
  std::lock_guard lock(shared.mutex);
  shared.held.erase(folder);
}

}  // namespace skelda::platform
