#include "Platform/Dispatch/EventLoop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <new>

#include "Platform/Base/Descriptor.h"
#include "Platform/Base/Log.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Base/RetryDelay.h"
#include "Platform/Base/Thread.h"
#include "Platform/Dispatch/TimeParts.h"
#include "Platform/Dispatch/WorkerPool.h"

namespace skelda::platform {

namespace {

/// Has epoll tell of the descriptor by `context`.
bool addTo(int epoll, int descriptor, void* context, std::uint32_t events = EPOLLIN) noexcept {
  epoll_event event{};
  event.events = events;
  event.data.ptr = context;
  return epoll_ctl(epoll, EPOLL_CTL_ADD, descriptor, &event) == 0;
}

}  // namespace

EventLoop& EventLoop::shared() {
  static NeverDestroyed<EventLoop> loop;
  return *loop;
}

int EventLoop::Source::get() noexcept {
  if (!watched_.load(std::memory_order_acquire) && !shared().watch(*this)) askAgain();
  return descriptor_.load(std::memory_order_acquire);
}

bool EventLoop::Source::obtain() noexcept {
  if (!shared().watch(*this)) return false;
  late_(context_);
  return true;
}

bool EventLoop::watch(Source& source) noexcept {
  const MutexLock lock(mutex_);
  if (source.watched_.load(std::memory_order_relaxed)) return true;
  int descriptor = source.descriptor_.load(std::memory_order_relaxed);
  if (descriptor < 0) descriptor = aboveStandardDescriptors(source.make_(source.context_));
  source.descriptor_.store(descriptor, std::memory_order_release);
  // The thread comes even where the descriptor does not: it asks for it again.
  if (!stand() || descriptor < 0 || !addTo(epoll_, descriptor, &source)) return false;
  source.watched_.store(true, std::memory_order_release);
  return true;
}

/// The thread comes last: whoever finds it can wake it.
bool EventLoop::stand() noexcept {
  if (stands_.load(std::memory_order_relaxed)) return true;
  if (epoll_ < 0) epoll_ = aboveStandardDescriptors(epoll_create1(EPOLL_CLOEXEC));
  if (tick_ < 0) {
    tick_ = aboveStandardDescriptors(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK));
  }
  if (epoll_ < 0 || tick_ < 0) return false;
  // Each tick is told once without being read.
  if (!tickIsWatched_) tickIsWatched_ = addTo(epoll_, tick_, nullptr, EPOLLIN | EPOLLET);
  if (!tickIsWatched_ || !startThread("skelda-events", &EventLoop::run, this)) return false;
  stands_.store(true, std::memory_order_release);
  return true;
}

bool EventLoop::obtain() noexcept {
  {
    const MutexLock lock(mutex_);
    if (!stand()) return false;
  }
  if (const auto after = tickAfter_.load(); after.count() != 0) arm(after);
  return true;
}

void EventLoop::setPoolTick(std::chrono::nanoseconds after) noexcept {
  tickAfter_.store(after);
  if (stands_.load(std::memory_order_acquire)) return arm(after);
  if (after.count() != 0 && !obtain()) askAgain();
}

bool EventLoop::keepAsking() noexcept {
  if (!stands_.load(std::memory_order_acquire) && !obtain()) return false;
  if (!asks_.load()) arm(std::chrono::milliseconds(1));
  return true;
}

void EventLoop::arm(std::chrono::nanoseconds after) const noexcept {
  itimerspec when{};
  when.it_value = timespecOf(after.count());
  timerfd_settime(tick_, 0, &when, nullptr);
}

void EventLoop::run(void* self) {
  static_cast<EventLoop*>(self)->run();
}

/// A source keeps what it could not pass on for want of memory.
void EventLoop::tell(const Source& source) noexcept {
  try {
    source.readable_(source.context_);
  } catch (const std::bad_alloc&) {
    Log::write("platform::EventLoop: an event waits for want of memory");
  }
}

void EventLoop::run() {
  using std::chrono::milliseconds;
  RetryDelay delay(milliseconds(1), std::chrono::seconds(1));
  std::array<epoll_event, 8> events;
  for (;;) {
    const bool asks = any();
    // Somebody who wants something from here on arms the tick.
    asks_.store(asks);
    if (!asks && any()) continue;
    if (!asks) delay.reset();
    const auto longest = asks ? std::chrono::duration_cast<milliseconds>(delay.next()).count() : -1;
    const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()),
                                 static_cast<int>(longest));
    for (int i = 0; i < count; ++i) {
      auto* const source = static_cast<Source*>(events[static_cast<std::size_t>(i)].data.ptr);
      if (source == nullptr) {
        WorkerPool::shared().tick();
      } else {
        tell(*source);
      }
    }
    if (asks) askForAll();
  }
}

}  // namespace skelda::platform
