#include "Platform/Dispatch/ReadWatcher.h"

#include <sys/epoll.h>

#include <array>
#include <utility>

#include "Platform/Dispatch/EventLoop.h"

namespace skelda::platform {

ReadWatcher& ReadWatcher::shared() {
  static auto* const watcher = new ReadWatcher;
  return *watcher;
}

ReadWatcher::ReadWatcher() : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
  EventLoop::shared().watch(epoll_, &ReadWatcher::takeEvents, this);
}

ReadWatcher::WatchId ReadWatcher::add(int descriptor, std::weak_ptr<ReadListener> listener) {
  const std::lock_guard lock(mutex_);
  const WatchId watch = ++lastId_;
  epoll_event event{};
  event.events = EPOLLONESHOT;  // armed by the first arm()
  event.data.u64 = watch;
  if (epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) != 0) return 0;
  listeners_.emplace(watch, std::move(listener));
  return watch;
}

void ReadWatcher::arm(WatchId watch, int descriptor) noexcept {
  if (watch == 0) return;
  epoll_event event{};
  event.events = EPOLLIN | EPOLLRDHUP | EPOLLONESHOT;
  event.data.u64 = watch;
  // A descriptor that is not there any more has nothing to tell.
  static_cast<void>(epoll_ctl(epoll_, EPOLL_CTL_MOD, descriptor, &event));
}

void ReadWatcher::remove(WatchId watch, int descriptor) noexcept {
  if (watch == 0) return;
  static_cast<void>(epoll_ctl(epoll_, EPOLL_CTL_DEL, descriptor, nullptr));
  const std::lock_guard lock(mutex_);
  listeners_.erase(watch);
}

void ReadWatcher::takeEvents(void* raw) {
  auto* const self = static_cast<ReadWatcher*>(raw);
  std::array<epoll_event, 16> events;
  const int count = epoll_wait(self->epoll_, events.data(), static_cast<int>(events.size()), 0);
  for (int i = 0; i < count; ++i) {
    std::shared_ptr<ReadListener> listener;
    {
      const std::lock_guard lock(self->mutex_);
      const auto found = self->listeners_.find(events[static_cast<std::size_t>(i)].data.u64);
      if (found != self->listeners_.end()) listener = found->second.lock();
    }
    if (listener) listener->descriptorReady();
  }
}

}  // namespace skelda::platform
