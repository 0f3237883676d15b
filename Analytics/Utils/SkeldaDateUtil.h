#pragma once

#include <cstdint>

#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// Dates as milliseconds and back. Milliseconds are truncated toward zero, never rounded; the
/// difference of two dates is exact before it is truncated.
class SkeldaDateUtil {
 public:
  SkeldaDateUtil() = delete;

  // Seconds as a double to milliseconds, truncated and saturating, and back.
  static std::int64_t skeldaTimeIntervalFromNSTimeInterval(double seconds) noexcept;
  static double NSTimeIntervalFromSkeldaTimeInterval(std::int64_t milliseconds) noexcept;

  static std::int64_t timeIntervalSince1970InMilliseconds(const platform::Date& date) noexcept;
  /// `date` minus `earlier`.
  static std::int64_t timeIntervalSinceDateInMilliseconds(const platform::Date& date,
                                                          const platform::Date& earlier) noexcept;
  static platform::Value timestampForSerialization(const platform::Date& date);
  static bool isEqualToDateInMilliseconds(const platform::Date& a,
                                          const platform::Date& b) noexcept;
  static platform::Date dateWithTimeIntervalSince1970InMilliseconds(
      std::int64_t milliseconds) noexcept;
  static platform::Date dateWithInt64Number(const platform::Value& number) noexcept;
};
