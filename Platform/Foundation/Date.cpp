#include "Platform/Foundation/Date.h"

#include <time.h>

#include <cmath>
#include <limits>

namespace skelda::platform {

Date Date::now() noexcept {
  timespec time{};
  clock_gettime(CLOCK_REALTIME, &time);
  return Date(Microseconds(std::int64_t{time.tv_sec} * 1000000 + time.tv_nsec / 1000));
}

Date Date::withTimeIntervalSince1970(double seconds) noexcept {
  constexpr double kEnd = 9223372036854775808.0;
  const double microseconds = std::nearbyint(seconds * 1e6);
  if (std::isnan(microseconds)) return Date();
  if (microseconds >= kEnd) return Date(Microseconds::max());
  if (microseconds < -kEnd) return Date(Microseconds::min());
  return Date(Microseconds(static_cast<std::int64_t>(microseconds)));
}

double Date::timeIntervalSince1970() const noexcept {
  return static_cast<double>(since1970_.count()) / 1e6;
}

}  // namespace skelda::platform
