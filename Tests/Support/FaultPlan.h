#pragma once

#include <cstddef>
#include <limits>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace skelda::testing {

/// How a call fails.
struct Fault {
  int error = 5;  ///< errno; 5 is EIO
  /// Does only so many bytes, or half of them, and succeeds.
  std::optional<std::size_t> shortLength = std::nullopt;
  /// How many calls fail in a row, from the one named.
  std::size_t times = 1;

  /// It is the last thing that the process does.
  bool kills = false;

  static constexpr std::size_t kForEver = std::numeric_limits<std::size_t>::max();
  static constexpr std::size_t kHalf = kForEver;
};

/// Says which calls of a fake fail, by number or by kind, and remembers what was called. The kind
/// of a call is the name of its method. Any thread.
class FaultPlan {
 public:
  virtual ~FaultPlan() = default;
  /// The `number`th call of any kind from now on, counted from 1.
  void failCall(std::size_t number, Fault fault = {}) {
    std::lock_guard lock(mutex_);
    byNumber_ = Armed{calls_ + number, fault};
  }
  /// The `nth` call of that kind from now on, counted from 1.
  void failKind(const std::string& kind, std::size_t nth = 1, Fault fault = {}) {
    std::lock_guard lock(mutex_);
    byKind_[kind] = Armed{counts_[kind] + nth, fault};
  }
  void clear() {
    std::lock_guard lock(mutex_);
    byNumber_.reset();
    byKind_.clear();
  }

  /// Counts one call and says whether it is to fail. For the fakes.
  virtual std::optional<Fault> next(std::string_view kind) {
    std::lock_guard lock(mutex_);
    const std::string name(kind);
    const std::size_t count = ++counts_[name];
    ++calls_;
    if (byNumber_ && byNumber_->covers(calls_)) return struck(byNumber_->fault);
    const auto armed = byKind_.find(name);
    if (armed != byKind_.end() && armed->second.covers(count)) return struck(armed->second.fault);
    return std::nullopt;
  }

  std::size_t calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
  }
  std::size_t calls(const std::string& kind) const {
    std::lock_guard lock(mutex_);
    const auto found = counts_.find(kind);
    return found == counts_.end() ? 0 : found->second;
  }
  /// How many calls failed as told: a test that armed a fault asserts that it struck.
  std::size_t faults() const {
    std::lock_guard lock(mutex_);
    return faults_;
  }

 private:
  struct Armed {
    std::size_t first;
    Fault fault;
    bool covers(std::size_t count) const { return count >= first && count - first < fault.times; }
  };
  Fault struck(const Fault& fault) {
    ++faults_;
    return fault;
  }

  mutable std::mutex mutex_;
  std::optional<Armed> byNumber_;
  std::map<std::string, Armed> byKind_;
  std::map<std::string, std::size_t> counts_;
  std::size_t calls_ = 0;
  std::size_t faults_ = 0;
};

}  // namespace skelda::testing
