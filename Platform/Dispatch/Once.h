#pragma once

#include <atomic>
#include <cstdint>

#include "Platform/Dispatch/Block.h"

namespace skelda::platform {

/// Runs a body once. Whoever calls meanwhile waits until it has run; a body that throws counts as
/// done, and what it threw reaches the one who ran it. A body that calls its own guard again is
/// told that it is done, with a log line, instead of waiting for itself. May be `constinit`.
class Once {
 public:
  constexpr Once() noexcept = default;
  Once(const Once&) = delete;
  Once& operator=(const Once&) = delete;

  /// True when this call ran the body.
  template <class F>
  bool operator()(F&& body) {
    return state_.load(std::memory_order_acquire) != kDone && runSlowly(BlockRef(body));
  }
  bool isDone() const noexcept { return state_.load(std::memory_order_acquire) == kDone; }

 private:
  static constexpr std::uint32_t kNew = 0, kRunning = 1, kDone = 2;

  bool runSlowly(BlockRef body);

  std::atomic<std::uint32_t> state_{kNew};
  std::atomic<std::uint64_t> runner_{0};  // which thread runs the body
};

}  // namespace skelda::platform
