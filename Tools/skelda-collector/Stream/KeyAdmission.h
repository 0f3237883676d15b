#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <string>
#include <unordered_map>

#include "Platform/Base/Mutex.h"

/// How many logs a second each API key may send: a bucket for each, which holds a second's worth.
/// The keys remembered are bounded; where there are too many, those that are at rest are forgotten.
/// Any thread.
class KeyAdmission {
 public:
  using Clock = std::chrono::steady_clock;

  /// No more than 0 a second is no limit.
  explicit KeyAdmission(double aSecond) : aSecond_(aSecond) {}

  bool admit(const std::string& key, Clock::time_point now) {
    if (aSecond_ <= 0) return true;
    const skelda::platform::MutexLock lock(mutex_);
    if (buckets_.size() >= kMostKeys && !buckets_.contains(key)) {
      std::erase_if(buckets_, [&](const auto& entry) { return entry.second <= now; });
      if (buckets_.size() >= kMostKeys) return false;
    }
    // The time at which the bucket is full again.
    auto& fullAt = buckets_[key];
    fullAt = std::max(fullAt, now) + cost();
    if (fullAt - now <= std::max<Clock::duration>(std::chrono::seconds(1), cost())) return true;
    fullAt -= cost();
    return false;
  }

 private:
  static constexpr std::size_t kMostKeys = 100'000;
  Clock::duration cost() const {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1 / aSecond_));
  }

  const double aSecond_;
  skelda::platform::Mutex mutex_;
  std::unordered_map<std::string, Clock::time_point> buckets_ GUARDED_BY(mutex_);
};
