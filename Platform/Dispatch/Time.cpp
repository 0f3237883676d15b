#include "Platform/Dispatch/Time.h"

#include <algorithm>
#include <limits>

#include "Platform/Dispatch/TimeParts.h"

namespace skelda::platform {

std::int64_t nanosecondsNow(clockid_t clock) noexcept {
  timespec time{};
  clock_gettime(clock, &time);
  return std::int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

DispatchTime dispatchTimeAfter(std::chrono::nanoseconds delta) noexcept {
  const std::int64_t now = nanosecondsNow(CLOCK_MONOTONIC);
  std::int64_t sum = 0;
  if (__builtin_add_overflow(now, std::max<std::int64_t>(delta.count(), 0), &sum)) {
    return DispatchTime::forever;
  }
  return static_cast<DispatchTime>(sum);
}

DispatchTime dispatchWallTime(std::int64_t seconds, std::int64_t nanoseconds) noexcept {
  std::int64_t sum = 0;
  if (__builtin_mul_overflow(seconds, std::int64_t{1'000'000'000}, &sum) ||
      __builtin_add_overflow(sum, nanoseconds, &sum)) {
    sum = seconds < 0 ? 0 : std::numeric_limits<std::int64_t>::max();
  }
  // The greatest sum has every bit set: forever, as it should be.
  return static_cast<DispatchTime>(static_cast<std::uint64_t>(std::max<std::int64_t>(sum, 0)) |
                                   kWallClockBit);
}

}  // namespace skelda::platform
