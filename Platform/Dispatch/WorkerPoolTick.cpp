// The look that the event thread has at the pool now and then.

#include <algorithm>
#include <chrono>
#include <utility>

#include "Platform/Dispatch/EventLoop.h"
#include "Platform/Dispatch/Worker.h"
#include "Platform/Dispatch/WorkerPool.h"

namespace skelda::platform {

namespace {

constexpr std::uint32_t kStuckTicks = 5;  // without progress, before a worker is added
constexpr std::uint32_t kMostExtra = 64;
constexpr std::chrono::milliseconds kTick{1};
constexpr std::chrono::milliseconds kLongestTick{32};

}  // namespace

void WorkerPool::armTick() noexcept {
  if (tickArmed_.load(std::memory_order_seq_cst)) return;
  const MutexLock lock(tickMutex_);
  if (!tickArmed_.exchange(true)) EventLoop::shared().setPoolTick(tickAfter_.load());
}

/// Called when the last one goes to sleep: a tick would wake the event thread for nothing.
void WorkerPool::disarmTick() noexcept {
  if (!tickArmed_.load(std::memory_order_relaxed)) return;
  {
    const MutexLock lock(tickMutex_);
    if (tickArmed_.exchange(false)) EventLoop::shared().setPoolTick({});
  }
  // One who was waiting and is back may have submitted something just before.
  if (anythingWaits()) armTick();
}

void WorkerPool::tick() noexcept {
  const Waiting waiting = lookAround();
  const auto after = tickAfter_.load();
  tickAfter_.store(waiting == Waiting::lyingStill ? std::max(after / 2, kTick)
                                                  : std::min(after * 2, kLongestTick));
  if (waiting != Waiting::nothing) {
    hurry();
    if (waiting == Waiting::lyingStill) helpOut();
    const MutexLock lock(tickMutex_);
    if (tickArmed_.load(std::memory_order_relaxed)) {
      EventLoop::shared().setPoolTick(tickAfter_.load());
    }
    return;
  }
  {
    const MutexLock lock(tickMutex_);
    tickArmed_.store(false, std::memory_order_seq_cst);
  }
  // A piece that came since then has armed the tick, or is seen here.
  if (anythingWaits()) armTick();
}

bool WorkerPool::anythingWaits() const noexcept {
  if (injected_.load(std::memory_order_seq_cst) > 0) return true;
  for (Worker* worker = all_.load(std::memory_order_acquire); worker != nullptr;
       worker = worker->nextOfAll) {
    if (worker->ring.size() > 0) return true;
  }
  return false;
}

/// Lying still is what has waited since the last tick.
WorkerPool::Waiting WorkerPool::lookAround() noexcept {
  Waiting waiting =
      injected_.load(std::memory_order_seq_cst) > 0 ? Waiting::lyingStill : Waiting::nothing;
  for (Worker* worker = all_.load(std::memory_order_acquire); worker != nullptr;
       worker = worker->nextOfAll) {
    const std::uint32_t taken = worker->ring.taken();
    if (worker->ring.size() > 0) {
      waiting =
          std::max(waiting, taken == worker->takenBefore ? Waiting::lyingStill : Waiting::moving);
    }
    worker->takenBefore = taken;
  }
  return waiting;
}

/// Asks for the end of long turns, and counts the ticks during which nobody got on.
void WorkerPool::hurry() noexcept {
  std::uint64_t progress = 0;
  for (Worker* worker = all_.load(std::memory_order_acquire); worker != nullptr;
       worker = worker->nextOfAll) {
    worker->yield.store(true, std::memory_order_relaxed);
    progress += worker->progress.load(std::memory_order_relaxed);
  }
  const bool stuck = std::exchange(progressBefore_, progress) == progress;
  stuckTicks_ = stuck ? stuckTicks_ + 1 : 0;
}

/// Lets somebody take what lies still, one more than usual where all are stuck.
void WorkerPool::helpOut() noexcept {
  Called called;
  {
    const MutexLock lock(mutex_);
    if (stuckTicks_ >= kStuckTicks && running() >= limit_ + extra_ && extra_ < kMostExtra) {
      ++extra_;
      stuckTicks_ = 0;
    }
    called = callSomebody();
  }
  wake(called);
}

}  // namespace skelda::platform
