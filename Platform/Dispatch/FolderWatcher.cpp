#include "Platform/Dispatch/FolderWatcher.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Dispatch/FolderSource.h"

namespace skelda::platform {

namespace {

constexpr std::uint32_t kEntryEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO;
constexpr std::uint32_t kSelfEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_ATTRIB;
constexpr std::uint32_t kGoneEvents = IN_DELETE_SELF | IN_MOVE_SELF | IN_UNMOUNT | IN_IGNORED;
// Masks are added to: a folder may be watched for itself and as the parent of another one.
constexpr std::uint32_t kHow = IN_ONLYDIR | IN_MASK_ADD | IN_EXCL_UNLINK;

std::string linkOf(int descriptor) {
  return "/proc/self/fd/" + std::to_string(descriptor);
}

bool isUnlinked(int descriptor) noexcept {
  struct stat status {};
  return fstat(descriptor, &status) == 0 && status.st_nlink == 0;
}

}  // namespace

FolderWatcher& FolderWatcher::shared() {
  static NeverDestroyed<FolderWatcher> watcher;
  return *watcher;
}

int FolderWatcher::make(const void*) noexcept {
  return inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
}

bool FolderWatcher::add(int descriptor, const std::shared_ptr<FolderListener>& listener) {
  const int inotify = inotify_.get();
  if (inotify < 0) return false;
  const int own = fcntl(descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (own < 0) return false;
  const MutexLock lock(mutex_);
  Folder folder{listener.get(), listener, own, kNoWatch, kNoWatch};
  int error = 0;
  try {
    folders_.reserve(folders_.size() + 1);
    folder.folder = addWatch(linkOf(own), kEntryEvents | kSelfEvents);
    error = errno;
    // A parent that cannot be looked into can be done without, one that there is no watch for
    // cannot.
    if (folder.folder >= 0) error = watchParentOf(folder);
  } catch (const std::bad_alloc&) {
    error = ENOMEM;
  }
  if (folder.folder >= 0 && error != ENOSPC && error != ENOMEM) {
    folders_.push_back(std::move(folder));
    return true;
  }
  dropWatch(folder.folder);
  close(own);
  errno = error;
  return false;
}

FolderWatcher::WatchId FolderWatcher::addWatch(const std::string& path, std::uint32_t events) {
  const WatchId watch = inotify_add_watch(inotify_.get(), path.c_str(), events | kHow);
  if (watch < 0) return watch;
  try {
    ++users_[watch];
  } catch (const std::bad_alloc&) {
    inotify_rm_watch(inotify_.get(), watch);  // nobody has it: else it were counted
    throw;
  }
  return watch;
}

/// A folder that is removed while a descriptor keeps it says nothing itself, but its parent does.
/// Answers why there is no watch, or 0.
int FolderWatcher::watchParentOf(Folder& folder) {
  std::array<char, PATH_MAX> path;
  const ssize_t length = readlink(linkOf(folder.descriptor).c_str(), path.data(), path.size());
  if (length <= 0 || static_cast<std::size_t>(length) >= path.size()) return ENAMETOOLONG;
  const std::string_view whole(path.data(), static_cast<std::size_t>(length));
  const std::size_t slash = whole.rfind('/');
  if (slash == std::string_view::npos || whole.size() == 1) return ENOENT;
  folder.parent =
      addWatch(std::string(whole.substr(0, std::max<std::size_t>(slash, 1))), IN_DELETE);
  return folder.parent < 0 ? errno : 0;
}

void FolderWatcher::expectRemoval(const FolderListener& listener, const std::string& name) {
  const MutexLock lock(mutex_);
  for (Folder& folder : folders_) {
    if (folder.identity == &listener) folder.expectedRemovals.insert(name);
  }
}

void FolderWatcher::remove(const FolderListener& listener) noexcept {
  const MutexLock lock(mutex_);
  const auto at = std::find_if(folders_.begin(), folders_.end(), [&listener](const Folder& folder) {
    return folder.identity == &listener;
  });
  if (at == folders_.end()) return;
  const Folder folder = std::move(*at);
  folders_.erase(at);
  dropWatch(folder.folder);
  dropWatch(folder.parent);
  close(folder.descriptor);
}

void FolderWatcher::dropWatch(WatchId watch) noexcept {
  const auto users = users_.find(watch);
  if (users == users_.end() || --users->second > 0) return;
  users_.erase(users);
  inotify_rm_watch(inotify_.get(), watch);
}

void FolderWatcher::readEvents(void* raw) {
  auto* const self = static_cast<FolderWatcher*>(raw);
  alignas(inotify_event) std::array<std::byte, 4096> buffer;
  // Once: where there is more the event thread comes again.
  const ssize_t length = read(self->inotify_.get(), buffer.data(), buffer.size());
  if (length <= 0) return;
  {
    const MutexLock lock(self->mutex_);
    for (std::size_t at = 0; at < static_cast<std::size_t>(length);) {
      inotify_event event;
      std::memcpy(&event, buffer.data() + at, sizeof event);
      // The name ends in zero bytes, as many as it takes to the next event.
      const auto* const name = reinterpret_cast<const char*>(buffer.data() + at + sizeof event);
      at += sizeof event + event.len;
      self->take(event.wd, event.mask, {name, strnlen(name, event.len)});
    }
  }
  while (self->tellOne()) {
  }
}

/// False when nothing is due.
bool FolderWatcher::tellOne() {
  std::shared_ptr<FolderListener> listener;
  unsigned events = 0;
  {
    const MutexLock lock(mutex_);
    const auto folder = std::find_if(folders_.begin(), folders_.end(),
                                     [](const Folder& one) { return one.due != 0; });
    if (folder == folders_.end()) return false;
    events = std::exchange(folder->due, 0);
    listener = folder->listener.lock();
  }
  if (listener) listener->folderChanged(events);
  return true;
}

void FolderWatcher::take(WatchId watch, std::uint32_t mask, std::string_view name) noexcept {
  for (Folder& folder : folders_) {
    unsigned events = 0;
    // What was lost may have been anybody's.
    if ((mask & IN_Q_OVERFLOW) != 0) {
      events |= kFolderWritten;
      folder.expectedRemovals.clear();
    }
    if (watch == folder.folder) {
      auto& expected = folder.expectedRemovals;
      const auto own = (mask & IN_DELETE) != 0 ? expected.find(name) : expected.end();
      if (own != expected.end()) {
        expected.erase(own);
      } else if ((mask & kEntryEvents) != 0) {
        events |= kFolderWritten;
      }
      if ((mask & kGoneEvents) != 0) events |= kFolderGone;
    }
    // What happens to an entry of a folder says that the folder is there.
    const bool mayBeUnlinked = watch == folder.parent || (mask & IN_Q_OVERFLOW) != 0 ||
                               (watch == folder.folder && (mask & kSelfEvents) != 0);
    if (mayBeUnlinked && isUnlinked(folder.descriptor)) events |= kFolderGone;
    if ((events & kFolderGone) != 0 && std::exchange(folder.gone, true)) events &= ~kFolderGone;
    folder.due |= events;
  }
}

}  // namespace skelda::platform
