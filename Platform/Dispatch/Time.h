#pragma once

#include <chrono>
#include <cstdint>

namespace skelda::platform {

/// An absolute 64-bit dispatch time. Monotonic times are nanoseconds of CLOCK_MONOTONIC; wall-clock
/// times have the top bit set and hold nanoseconds of CLOCK_REALTIME, and follow that clock when it
/// is set.
enum class DispatchTime : std::uint64_t {
  now = 0,
  forever = ~std::uint64_t{0},
};

/// The current monotonic time plus `delta`, never before now and never past forever.
DispatchTime dispatchTimeAfter(std::chrono::nanoseconds delta) noexcept;
/// Wall-clock time: seconds and nanoseconds since 1970.
DispatchTime dispatchWallTime(std::int64_t seconds, std::int64_t nanoseconds) noexcept;

}  // namespace skelda::platform
