#pragma once

#include <algorithm>
#include <chrono>

namespace skelda::platform {

/// How long to wait before the next try: from a first delay on, twice as long each time, up to a
/// longest one. A value without a thread or a clock of its own.
class RetryDelay {
 public:
  using Duration = std::chrono::nanoseconds;

  constexpr RetryDelay(Duration first, Duration longest) noexcept
      : first_(first), longest_(longest), next_(first) {}

  /// What to wait now; the next call answers twice as much.
  constexpr Duration next() noexcept {
    const Duration delay = std::min(next_, longest_);
    next_ = std::min(delay * 2, longest_);
    isRunning_ = true;
    return delay;
  }
  /// The try succeeded.
  constexpr void reset() noexcept {
    next_ = first_;
    isRunning_ = false;
  }
  /// Whether the next answer is the longest delay.
  constexpr bool isAtLongest() const noexcept { return next_ >= longest_; }
  /// Whether a try failed since the last reset().
  constexpr bool isRunning() const noexcept { return isRunning_; }

 private:
  Duration first_;
  Duration longest_;
  Duration next_;
  bool isRunning_ = false;
};

}  // namespace skelda::platform
