#include "Platform/Foundation/StorageLock.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <map>
#include <new>

#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/FileDescriptor.h"

namespace skelda::platform {

namespace {

struct Held {
  FileDescriptor file;
  ::pid_t process;  ///< a child that was forked inherits the record, but not the lock
};

struct State {
  Mutex mutex;
  std::map<std::string, Held> held GUARDED_BY(mutex);
};

State& state();

// The analysis does not see that a fork is left as it was entered.

/// A fork waits until nobody is half way through, so that the child finds a whole record. There it
/// closes what it inherited at once: a lock lasts as long as any descriptor of it, and a child may
/// outlive the holder.
void beforeFork() NO_THREAD_SAFETY_ANALYSIS {
  state().mutex.lock();
}
void afterForkInParent() NO_THREAD_SAFETY_ANALYSIS {
  state().mutex.unlock();
}
void afterForkInChild() NO_THREAD_SAFETY_ANALYSIS {
  state().held.clear();
  state().mutex.unlock();
}

/// The locks go with the process.
State& state() {
  static NeverDestroyed<State> shared;
  static const int followsForks = ::pthread_atfork(beforeFork, afterForkInParent, afterForkInChild);
  if (followsForks != 0) throw std::bad_alloc();
  return *shared;
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

StorageLock::Result StorageLock::acquire(const std::string& path) {
  State& shared = state();
  const MutexLock lock(shared.mutex);
  const ::pid_t self = ::getpid();
  if (const auto found = shared.held.find(path); found != shared.held.end()) {
    if (found->second.process == self) return {Status::held, 0, nullptr};
    shared.held.erase(found);
  }
  int error = 0;
  FileDescriptor file = FileDescriptor::openFile(path, O_RDWR | O_CREAT, error);
  if (!file) return failed(error, path);
  error = file.lock(LOCK_EX | LOCK_NB);
  if (error == EWOULDBLOCK) return {Status::heldByOther, holderNamedIn(file), nullptr};
  if (error != 0) return failed(error, path);
  // The lock stands without the number; a disk too full for it is no reason to do without the lock.
  if (file.truncate(0) == 0) file.write(std::to_string(self) + "\n", 0);
  shared.held.emplace(path, Held{std::move(file), self});
  return {Status::held, 0, nullptr};
}

void StorageLock::release(const std::string& path) {
  State& shared = state();
  const MutexLock lock(shared.mutex);
  shared.held.erase(path);
}

}  // namespace skelda::platform
