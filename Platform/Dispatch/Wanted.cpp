#include "Platform/Dispatch/Wanted.h"

#include <chrono>
#include <new>

#include "Platform/Dispatch/EventLoop.h"
#include "Platform/Dispatch/Futex.h"
#include "Platform/Dispatch/MainThread.h"
#include "Platform/Dispatch/TimeParts.h"
#include "Platform/Dispatch/WorkerPool.h"

namespace skelda::platform {

constinit std::atomic<std::uint32_t> Wanted::count_{0};
constinit std::atomic<Wanted*> Wanted::all_{nullptr};

void Wanted::askAgain() noexcept {
  if (isWanted_.exchange(true)) return;
  count_.fetch_add(1);
  if (isListed_.exchange(true)) return;
  next_ = all_.load(std::memory_order_relaxed);
  while (!all_.compare_exchange_weak(next_, this, std::memory_order_release)) {
  }
}

void Wanted::askForAll() noexcept {
  for (Wanted* one = all_.load(std::memory_order_acquire); one != nullptr; one = one->next_) {
    if (!one->isWanted_.exchange(false)) continue;
    if (!one->obtain()) one->askAgain();
    count_.fetch_sub(1);
  }
  if (!any() || EventLoop::shared().keepAsking()) return;
  WorkerPool::shared().keepAsking();
  try {
    MainThread::shared().keepAsking();
  } catch (const std::bad_alloc&) {
    // Nobody needed it so far: whoever submits next asks.
  }
}

bool Wanted::wait(std::atomic<std::uint32_t>& word, std::uint32_t expected,
                  DispatchTime deadline) noexcept {
  constexpr std::chrono::milliseconds kPatience{10};
  if (any()) askForAll();
  if (!any() || EventLoop::shared().keepAsking()) return futexWait(word, expected, deadline);
  futexWait(word, expected, dispatchTimeAfter(kPatience));
  return deadline == DispatchTime::forever ||
         nanosecondsOf(deadline) > nanosecondsNow(clockOf(deadline));
}

}  // namespace skelda::platform
