#include "Platform/Foundation/Timer.h"

#include <algorithm>
#include <atomic>

#include "Platform/Base/Counted.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/TimeParts.h"
#include "Platform/Dispatch/Timers.h"

namespace skelda::platform {

namespace {
// What an interval of nothing stands for.
constexpr std::chrono::nanoseconds kShortest = std::chrono::microseconds(100);
}  // namespace

struct Timer::State : std::enable_shared_from_this<Timer::State> {
  State(std::chrono::nanoseconds every, bool again, QueueRef on, Tick call)
      : interval(std::max(every, kShortest)),
        repeats(again),
        queue(std::static_pointer_cast<QueueCore>(std::move(on))),
        tick(std::move(call)) {}

  /// Waits for the first moment of its raster that is still to come: ticks that a busy queue could
  /// not take are not made up for.
  void wait() {
    const MutexLock lock(mutex);
    if (!valid.load(std::memory_order_relaxed)) return;
    const std::int64_t now = nanosecondsNow(CLOCK_MONOTONIC);
    const std::int64_t missed = due == 0 ? 0 : std::max<std::int64_t>((now - due) / step(), 0);
    if (due == 0) due = now;
    if (__builtin_add_overflow(due, (missed + 1) * step(), &due)) return;
    ticket = Timers::shared().submitAt(static_cast<DispatchTime>(due), queue,
                                       makeWork([weak = weak_from_this()] {
                                         if (const auto self = weak.lock()) self->fire();
                                       }));
  }

  void fire() {
    const std::shared_ptr<Timer> timer = owner.lock();
    if (timer == nullptr || !valid.load(std::memory_order_acquire)) return;
    if (!repeats) valid.store(false, std::memory_order_release);
    tick(*timer);
    if (repeats) wait();
  }

  void invalidate() noexcept {
    valid.store(false, std::memory_order_release);
    Timers::Ticket waiting;
    {
      const MutexLock lock(mutex);
      waiting = std::exchange(ticket, {});
    }
    Timers::shared().cancel(waiting);
  }

  std::int64_t step() const noexcept { return interval.count(); }

  const std::chrono::nanoseconds interval;
  const bool repeats;
  const std::shared_ptr<QueueCore> queue;
  const Tick tick;
  std::weak_ptr<Timer> owner;
  std::atomic<bool> valid{true};
  Mutex mutex;
  std::int64_t due GUARDED_BY(mutex) = 0;
  Timers::Ticket ticket GUARDED_BY(mutex);
};

Timer::Timer(std::shared_ptr<State> state) : state_(std::move(state)) {}

Timer::~Timer() {
  state_->invalidate();
}

std::shared_ptr<Timer> Timer::scheduled(std::chrono::nanoseconds interval, bool repeats,
                                        QueueRef queue, Tick tick) {
  auto state = makeCounted<State>(interval, repeats, std::move(queue), std::move(tick));
  std::shared_ptr<Timer> timer(new Timer(state));
  state->owner = timer;
  state->wait();
  return timer;
}

void Timer::invalidate() noexcept {
  state_->invalidate();
}

bool Timer::isValid() const noexcept {
  return state_->valid.load(std::memory_order_acquire);
}

}  // namespace skelda::platform
