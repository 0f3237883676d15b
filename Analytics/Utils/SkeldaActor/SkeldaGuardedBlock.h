#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <utility>

#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Platform.h"

/// The first line of what works on a queue that is no actor's own, as SKELDA_ON_QUEUE() is for what
/// works on an actor's.
#ifdef SKELDA_CHECK_QUEUES
#define SKELDA_ON_RAW_QUEUE(queue) \
  ((queue)->isCurrent() ? void() : platform::abortOnFailedAssertion(#queue " is current"))
#else
#define SKELDA_ON_RAW_QUEUE(queue) static_cast<void>(0)
#endif

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
