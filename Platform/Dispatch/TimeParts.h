#pragma once

#include <time.h>

#include <cstdint>

#include "Platform/Dispatch/Time.h"

namespace skelda::platform {

inline constexpr std::uint64_t kWallClockBit = std::uint64_t{1} << 63;

/// Which clock a dispatch time that is neither now nor forever is counted on.
constexpr bool isWallClock(DispatchTime time) noexcept {
  return (static_cast<std::uint64_t>(time) & kWallClockBit) != 0;
}
constexpr clockid_t clockOf(DispatchTime time) noexcept {
  return isWallClock(time) ? CLOCK_REALTIME : CLOCK_MONOTONIC;
}
/// Nanoseconds of its clock.
constexpr std::int64_t nanosecondsOf(DispatchTime time) noexcept {
  return static_cast<std::int64_t>(static_cast<std::uint64_t>(time) & ~kWallClockBit);
}
static_assert(sizeof(::time_t) == 8, "with 32 bits, time would end in 2038");
constexpr timespec timespecOf(std::int64_t nanoseconds) noexcept {
  return {nanoseconds / 1'000'000'000, static_cast<long>(nanoseconds % 1'000'000'000)};
}
std::int64_t nanosecondsNow(clockid_t clock) noexcept;

}  // namespace skelda::platform
