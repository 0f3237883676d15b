#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <utility>

#include "Analytics/Utils/SkeldaUtil.h"

namespace skelda {

/// How many exceptions were dropped on raw queues so far. Tests hold it at 0.
inline std::atomic<std::uint64_t>& guardedExceptions() noexcept {
  static constinit std::atomic<std::uint64_t> count{0};
  return count;
}

/// What runs on a queue that is no actor's own is wrapped like an actor's block: whatever it throws
/// is reported, counted and dropped.
template <class F>
auto guarded(F&& block) {
  return [block = std::forward<F>(block)]() mutable noexcept {
    try {
      block();
    } catch (...) {
      guardedExceptions().fetch_add(1, std::memory_order_relaxed);
      SkeldaUtil::handleException(std::current_exception());
    }
  };
}

}  // namespace skelda
