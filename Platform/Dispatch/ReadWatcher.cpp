#include "Platform/Dispatch/ReadWatcher.h"

#include <sys/epoll.h>

#include <array>
#include <cerrno>
#include <utility>

#include "Platform/Base/NeverDestroyed.h"

namespace skelda::platform {

ReadWatcher& ReadWatcher::shared() {
  static NeverDestroyed<ReadWatcher> watcher;
  return *watcher;
}

int ReadWatcher::make(const void*) noexcept {
  return epoll_create1(EPOLL_CLOEXEC);
}

ReadWatcher::WatchId ReadWatcher::add(int descriptor, std::weak_ptr<ReadListener> listener) {
  const MutexLock lock(mutex_);
  const WatchId id = ++lastId_;
  Watch& watch = watches_.emplace(id, Watch{descriptor, std::move(listener)}).first->second;
  if (!tell(id, watch)) askAgain();
  return id;
}

void ReadWatcher::arm(WatchId id) noexcept {
  {
    const MutexLock lock(mutex_);
    const auto found = watches_.find(id);
    if (found == watches_.end()) return;
    found->second.isArmed = true;
    if (!tell(id, found->second)) askAgain();
  }
  afterSubmission();
}

void ReadWatcher::remove(WatchId id) noexcept {
  const MutexLock lock(mutex_);
  const auto found = watches_.find(id);
  if (found == watches_.end()) return;
  if (found->second.isKnown) {
    static_cast<void>(epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, found->second.descriptor, nullptr));
  }
  watches_.erase(found);
}

/// What is to be waited for. False where the system refuses for now; a descriptor that is not there
/// any more, or is none that can be waited for, has nothing to tell.
bool ReadWatcher::tell(WatchId id, Watch& watch) noexcept {
  const int epoll = epoll_.get();
  if (epoll < 0) return false;
  epoll_event event{};
  event.events = EPOLLONESHOT | (watch.isArmed ? EPOLLIN | EPOLLRDHUP : 0U);
  event.data.u64 = id;
  const int how = watch.isKnown ? EPOLL_CTL_MOD : EPOLL_CTL_ADD;
  if (epoll_ctl(epoll, how, watch.descriptor, &event) != 0) {
    watch.isDue = errno == ENOMEM || errno == ENOSPC;
    return !watch.isDue;
  }
  watch.isKnown = true;
  watch.isDue = false;
  return true;
}

bool ReadWatcher::obtain() noexcept {
  const MutexLock lock(mutex_);
  bool all = true;
  for (auto& [id, watch] : watches_) all = (!watch.isDue || tell(id, watch)) && all;
  return all;
}

void ReadWatcher::addLate(void* self) {
  if (!static_cast<ReadWatcher*>(self)->obtain()) static_cast<ReadWatcher*>(self)->askAgain();
}

void ReadWatcher::takeEvents(void* raw) {
  auto* const self = static_cast<ReadWatcher*>(raw);
  std::array<epoll_event, 16> events;
  const int count =
      epoll_wait(self->epoll_.get(), events.data(), static_cast<int>(events.size()), 0);
  for (int i = 0; i < count; ++i) {
    std::shared_ptr<ReadListener> listener;
    {
      const MutexLock lock(self->mutex_);
      const auto found = self->watches_.find(events[static_cast<std::size_t>(i)].data.u64);
      if (found != self->watches_.end()) {
        found->second.isArmed = false;
        listener = found->second.listener.lock();
      }
    }
    if (listener) listener->descriptorReady();
  }
}

}  // namespace skelda::platform
