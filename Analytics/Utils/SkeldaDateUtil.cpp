#include "Analytics/Utils/SkeldaDateUtil.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

constexpr std::int64_t kMicrosecondsPerMillisecond = 1000;

}  // namespace

std::int64_t SkeldaDateUtil::skeldaTimeIntervalFromNSTimeInterval(double seconds) noexcept {
  constexpr double kPastLast = 9223372036854775808.0;  // 2 to the 63rd
  const double milliseconds = std::trunc(seconds * 1000.0);
  if (std::isnan(milliseconds)) return 0;
  if (milliseconds >= kPastLast) return std::numeric_limits<std::int64_t>::max();
  if (milliseconds < -kPastLast) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(milliseconds);
}

double SkeldaDateUtil::NSTimeIntervalFromSkeldaTimeInterval(std::int64_t milliseconds) noexcept {
  return static_cast<double>(milliseconds) / 1000.0;
}

std::int64_t SkeldaDateUtil::timeIntervalSince1970InMilliseconds(
    const platform::Date& date) noexcept {
  return date.microsecondsSince1970().count() / kMicrosecondsPerMillisecond;
}

std::int64_t SkeldaDateUtil::timeIntervalSinceDateInMilliseconds(
    const platform::Date& date, const platform::Date& earlier) noexcept {
  // Whole milliseconds and the rest apart: the microseconds between two dates may be too many.
  const std::int64_t later = date.microsecondsSince1970().count();
  const std::int64_t sooner = earlier.microsecondsSince1970().count();
  const std::int64_t whole =
      later / kMicrosecondsPerMillisecond - sooner / kMicrosecondsPerMillisecond;
  const std::int64_t rest =
      later % kMicrosecondsPerMillisecond - sooner % kMicrosecondsPerMillisecond;
  const std::int64_t milliseconds = whole + rest / kMicrosecondsPerMillisecond;
  const std::int64_t left = rest % kMicrosecondsPerMillisecond;
  if (milliseconds > 0 && left < 0) return milliseconds - 1;
  if (milliseconds < 0 && left > 0) return milliseconds + 1;
  return milliseconds;
}

platform::Value SkeldaDateUtil::timestampForSerialization(const platform::Date& date) {
  return timeIntervalSince1970InMilliseconds(date);
}

bool SkeldaDateUtil::isEqualToDateInMilliseconds(const platform::Date& a,
                                                 const platform::Date& b) noexcept {
  return timeIntervalSince1970InMilliseconds(a) == timeIntervalSince1970InMilliseconds(b);
}

platform::Date SkeldaDateUtil::dateWithTimeIntervalSince1970InMilliseconds(
    std::int64_t milliseconds) noexcept {
  constexpr std::int64_t kLast =
      std::numeric_limits<std::int64_t>::max() / kMicrosecondsPerMillisecond;
  return platform::Date(platform::Date::Microseconds(std::clamp(milliseconds, -kLast, kLast) *
                                                     kMicrosecondsPerMillisecond));
}

platform::Date SkeldaDateUtil::dateWithInt64Number(const platform::Value& number) noexcept {
  return dateWithTimeIntervalSince1970InMilliseconds(number.integerValue());
}
