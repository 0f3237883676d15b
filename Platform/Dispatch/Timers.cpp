#include "Platform/Dispatch/Timers.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Dispatch/TimeParts.h"

namespace skelda::platform {

Timers& Timers::shared() {
  static NeverDestroyed<Timers> timers([] { return Timers(); });
  return *timers;
}

Timers::Ticket Timers::submitAt(DispatchTime when, std::shared_ptr<QueueCore> queue, Work* work) {
  if (when == DispatchTime::forever) {
    work->finish(work, false);
    return {};
  }
  const bool wallClock = isWallClock(when);
  const std::int64_t due = nanosecondsOf(when);
  if (due <= nanosecondsNow(clockOf(when))) {
    queue->submit(work, false);
    return {};
  }
  const Ticket ticket = (wallClock ? wall_ : monotonic_).submit(due, std::move(queue), work);
  Wanted::afterSubmission();
  return ticket;
}

void Timers::cancel(const Ticket& ticket) {
  if (ticket.number != 0) (ticket.wallClock ? wall_ : monotonic_).cancel(ticket);
}

Timers::Clock::Clock(clockid_t clock) noexcept
    : clock_(clock), timer_(&Clock::make, &Clock::fire, &Clock::armLate, this) {}

int Timers::Clock::make(const void* self) noexcept {
  return timerfd_create(static_cast<const Clock*>(self)->clock_, TFD_CLOEXEC | TFD_NONBLOCK);
}

void Timers::Clock::armLate(void* raw) {
  auto* const self = static_cast<Clock*>(raw);
  const MutexLock lock(self->mutex_);
  self->arm();
}

Timers::Ticket Timers::Clock::submit(std::int64_t due, std::shared_ptr<QueueCore> queue,
                                     Work* work) {
  const MutexLock lock(mutex_);
  const Key key{due, ++numbers_};
  waiting_.emplace(key, Entry{std::move(queue), work});
  if (waiting_.begin()->first == key) arm();
  return {clock_ == CLOCK_REALTIME, due, key.second};
}

void Timers::Clock::cancel(const Ticket& ticket) {
  Entry entry{};
  {
    const MutexLock lock(mutex_);
    auto node = waiting_.extract(Key{ticket.due, ticket.number});
    if (node.empty()) return;
    entry = std::move(node.mapped());
    arm();
  }
  entry.work->finish(entry.work, false);
}

void Timers::Clock::arm() noexcept {
  itimerspec when{};  // zero: never
  if (!waiting_.empty()) {
    when.it_value = timespecOf(std::max<std::int64_t>(waiting_.begin()->first.first, 1));
  }
  // A wall clock that is set wakes the reader, who then reckons anew.
  const int flags = TFD_TIMER_ABSTIME | (clock_ == CLOCK_REALTIME ? TFD_TIMER_CANCEL_ON_SET : 0);
  const int timer = timer_.get();
  if (timer >= 0) timerfd_settime(timer, flags, &when, nullptr);
}

void Timers::Clock::fire(void* raw) {
  auto* const self = static_cast<Clock*>(raw);
  std::uint64_t expirations = 0;
  // An error says that the clock was set, or that somebody armed it anew meanwhile.
  static_cast<void>(!read(self->timer_.get(), &expirations, sizeof expirations));
  self->submitWhatIsDue();
}

void Timers::Clock::submitWhatIsDue() {
  std::vector<Entry> due;
  {
    const MutexLock lock(mutex_);
    const std::int64_t now = nanosecondsNow(clock_);
    const auto end = waiting_.upper_bound(Key{now, ~std::uint64_t{0}});
    for (auto at = waiting_.begin(); at != end; at = waiting_.erase(at)) {
      due.push_back(std::move(at->second));
    }
    arm();
  }
  for (Entry& entry : due) entry.queue->submit(entry.work, false);
}

}  // namespace skelda::platform
