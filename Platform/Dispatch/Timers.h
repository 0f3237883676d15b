#pragma once

#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <map>
#include <memory>
#include <utility>

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/EventLoop.h"
#include "Platform/Dispatch/QueueCore.h"
#include "Platform/Dispatch/Time.h"

namespace skelda::platform {

/// Work that waits for its time. What is due goes to its queue in the order of the times, and of
/// submission where those are equal. Any thread.
class Timers {
 public:
  /// Names what waits, to take it back.
  struct Ticket {
    bool wallClock = false;
    std::int64_t due = 0;
    std::uint64_t number = 0;  // 0: nothing waits
  };

  static Timers& shared();

  Ticket submitAt(DispatchTime when, std::shared_ptr<QueueCore> queue, Work* work);
  /// Throws the work away if it has not gone to its queue yet.
  void cancel(const Ticket& ticket);

 private:
  /// What waits on one clock.
  class Clock {
   public:
    explicit Clock(clockid_t clock) noexcept;
    Ticket submit(std::int64_t due, std::shared_ptr<QueueCore> queue, Work* work);
    void cancel(const Ticket& ticket);

   private:
    using Key = std::pair<std::int64_t, std::uint64_t>;
    struct Entry {
      std::shared_ptr<QueueCore> queue;
      Work* work;
    };

    static int make(const void* self) noexcept;
    static void fire(void* self);
    static void armLate(void* self);
    void submitWhatIsDue();
    void arm() noexcept REQUIRES(mutex_);

    const clockid_t clock_;
    EventLoop::Source timer_;
    Mutex mutex_;
    std::map<Key, Entry> waiting_ GUARDED_BY(mutex_);
    std::uint64_t numbers_ GUARDED_BY(mutex_) = 0;
  };

  Timers() = default;

  Clock monotonic_{CLOCK_MONOTONIC};
  Clock wall_{CLOCK_REALTIME};
};

}  // namespace skelda::platform
