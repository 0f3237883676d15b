#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "Platform/Dispatch/Work.h"

namespace skelda::platform {

/// The run list of one worker: only its owner adds, anybody takes the oldest.
class StealingRing {
 public:
  static constexpr std::uint32_t kSize = 256;

  /// False when it is full.
  bool push(Work* work) noexcept {
    const std::uint32_t tail = tail_.load(std::memory_order_relaxed);
    if (tail - head_.load(std::memory_order_acquire) >= kSize) return false;
    slots_[tail % kSize].store(work, std::memory_order_relaxed);
    // In one order with the flag that says whether anybody watches the ring.
    tail_.store(tail + 1, std::memory_order_seq_cst);
    return true;
  }

  Work* pop() noexcept {
    std::uint32_t head = head_.load(std::memory_order_acquire);
    for (;;) {
      if (head == tail_.load(std::memory_order_acquire)) return nullptr;
      // May be a later round's by now; then the head has moved and the exchange fails.
      Work* const work = slots_[head % kSize].load(std::memory_order_relaxed);
      if (head_.compare_exchange_weak(head, head + 1, std::memory_order_acq_rel,
                                      std::memory_order_acquire)) {
        return work;
      }
    }
  }

  /// How many have been taken since the beginning: the same twice means that nothing moved.
  std::uint32_t taken() const noexcept { return head_.load(std::memory_order_acquire); }
  std::uint32_t size() const noexcept {
    const std::uint32_t head = head_.load(std::memory_order_acquire);
    return tail_.load(std::memory_order_seq_cst) - head;
  }

 private:
  alignas(64) std::atomic<std::uint32_t> head_{0};
  alignas(64) std::atomic<std::uint32_t> tail_{0};
  std::array<std::atomic<Work*>, kSize> slots_{};
};

}  // namespace skelda::platform
