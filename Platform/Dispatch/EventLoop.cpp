#include "Platform/Dispatch/EventLoop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cstdint>

#include "Platform/Base/Log.h"
#include "Platform/Base/Thread.h"
#include "Platform/Dispatch/WorkerPool.h"

namespace skelda::platform {

namespace {
constexpr long kTickNanoseconds = 1'000'000;
}

EventLoop& EventLoop::shared() {
  static auto* const loop = new EventLoop;
  return *loop;
}

EventLoop::EventLoop()
    : epoll_(epoll_create1(EPOLL_CLOEXEC)),
      tick_(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  watch(tick_, &EventLoop::tickPool, this);
}

bool EventLoop::ensureThread() noexcept {
  if (started_.load(std::memory_order_acquire)) return true;
  const std::lock_guard lock(mutex_);
  if (!started_.load(std::memory_order_relaxed)) {
    started_.store(startThread("skelda-events", &EventLoop::run, this), std::memory_order_release);
  }
  return started_.load(std::memory_order_relaxed);
}

void EventLoop::watch(int descriptor, Handler handler, void* context) noexcept {
  epoll_event event{};
  event.events = EPOLLIN;
  {
    const std::lock_guard lock(mutex_);
    if (watchCount_ < watches_.size()) {
      watches_[watchCount_] = {handler, context};
      event.data.ptr = &watches_[watchCount_];
    }
    if (event.data.ptr == nullptr || epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event) != 0) {
      Log::write("platform::EventLoop: no room or no descriptor to wait for events with");
      return;
    }
    ++watchCount_;
  }
  ensureThread();
}

void EventLoop::setPoolTick(bool on) noexcept {
  itimerspec when{};
  when.it_value.tv_nsec = on ? kTickNanoseconds : 0;
  timerfd_settime(tick_, 0, &when, nullptr);
  if (on) ensureThread();
}

void EventLoop::tickPool(void* raw) {
  auto* const self = static_cast<EventLoop*>(raw);
  std::uint64_t expirations = 0;
  if (read(self->tick_, &expirations, sizeof expirations) < 0) return;
  WorkerPool::shared().tick();
}

void EventLoop::run(void* raw) {
  auto* const self = static_cast<EventLoop*>(raw);
  std::array<epoll_event, 8> events;
  for (;;) {
    const int count = epoll_wait(self->epoll_, events.data(), static_cast<int>(events.size()), -1);
    for (int i = 0; i < count; ++i) {
      const auto* const entry = static_cast<Watch*>(events[static_cast<std::size_t>(i)].data.ptr);
      entry->handler(entry->context);
    }
  }
}

}  // namespace skelda::platform
