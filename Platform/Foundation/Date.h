#pragma once

#include <chrono>
#include <cstdint>

#include "../Base/Export.h"

namespace skelda::platform {

/// A point of wall-clock time: signed 64-bit microseconds since 1970-01-01 UTC.
/// Differences are exact; a date made from seconds as a double is rounded to the nearest
/// microsecond. A value.
class SKELDA_EXPORT Date {
 public:
  /// The width of every time here.
  using Microseconds = std::chrono::duration<std::int64_t, std::micro>;

  /// 1970-01-01 UTC, and so long after it.
  constexpr Date() = default;
  constexpr explicit Date(Microseconds since1970) : since1970_(since1970) {}

  /// The current time of the wall clock (CLOCK_REALTIME).
  static Date now() noexcept;
  static Date withTimeIntervalSince1970(double seconds) noexcept;
  /// Later than every date that a record can hold.
  static constexpr Date distantFuture() { return Date(Microseconds(64092211200000000)); }

  /// The date as it is kept.
  constexpr Microseconds microsecondsSince1970() const noexcept { return since1970_; }
  /// Seconds since 1970, as a double.
  double timeIntervalSince1970() const noexcept;

  /// Exact, to the microsecond.
  friend constexpr bool operator==(Date a, Date b) { return a.since1970_ == b.since1970_; }
  friend constexpr bool operator!=(Date a, Date b) { return a.since1970_ != b.since1970_; }
  friend constexpr bool operator<(Date a, Date b) { return a.since1970_ < b.since1970_; }
  friend constexpr bool operator>(Date a, Date b) { return a.since1970_ > b.since1970_; }
  friend constexpr bool operator<=(Date a, Date b) { return a.since1970_ <= b.since1970_; }
  friend constexpr bool operator>=(Date a, Date b) { return a.since1970_ >= b.since1970_; }
  friend constexpr Microseconds operator-(Date a, Date b) { return a.since1970_ - b.since1970_; }
  friend constexpr Date operator+(Date a, Microseconds b) { return Date(a.since1970_ + b); }

 private:
  Microseconds since1970_{0};
};

}  // namespace skelda::platform
