#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

namespace skelda::platform {

class QueueCore;

/// A piece of work as queues keep it: linked in place, so that a submission allocates once.
struct Work {
  enum class Kind : std::uint8_t {
    block,   ///< a block to run
    waiter,  ///< a thread that waits for its turn; the queue is handed to it
    queue,   ///< a queue that runs its own blocks here
  };
  /// Runs the block, or does not, and then destroys the work. Whoever has it run ends the process
  /// over what the block throws, unless that is want of memory.
  using Finish = void (*)(Work* work, bool run);

  Work(Kind kindOfWork, Finish finishWork) noexcept : finish(finishWork), kind(kindOfWork) {}

  std::atomic<Work*> next{nullptr};  ///< set by whoever holds the list, or links this into it
  QueueCore* origin = nullptr;       ///< the queue it was submitted to
  Finish finish;
  Kind kind;
  bool barrier = false;
};

/// Room for a piece of work. A worker keeps some of what it has run for what it submits, which in a
/// pipeline is the same number of pieces. (WorkMemory.cpp)
void* takeWorkMemory(std::size_t size);
void giveBackWorkMemory(void* room, std::size_t size) noexcept;

/// A callable as work.
template <class F>
struct BlockWork final : Work {
  static void* operator new(std::size_t size) { return takeWorkMemory(size); }
  static void operator delete(void* room, std::size_t size) noexcept {
    giveBackWorkMemory(room, size);
  }
  static_assert(alignof(F) <= alignof(std::max_align_t));

  template <class G>
  explicit BlockWork(G&& callable)
      : Work(Kind::block, &runAndDelete), body(std::forward<G>(callable)) {}

  static void runAndDelete(Work* work, bool run) {
    const std::unique_ptr<BlockWork> self(static_cast<BlockWork*>(work));
    if (run) self->body();
  }

  F body;
};

template <class F>
Work* makeWork(F&& callable) {
  return new BlockWork<std::decay_t<F>>(std::forward<F>(callable));
}

}  // namespace skelda::platform
