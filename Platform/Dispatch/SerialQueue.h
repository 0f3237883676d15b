#pragma once

#include <atomic>
#include <mutex>

#include "Platform/Dispatch/QueueCore.h"

namespace skelda::platform {

/// A queue that runs one block at a time.
///
/// New work is pushed on a stack by anybody, without a lock. Whoever finds the stack marked idle
/// becomes the owner; the owner takes the whole stack, turns it round and runs it. Owners are, one
/// after the other: the one who found it idle, the target's list, the thread that drains it there,
/// and threads in a synchronous call. Only the owner touches what has no atomic type.
class SerialQueue final : public QueueCore {
 public:
  SerialQueue(std::string_view label, QueueRef target)
      : QueueCore(label, std::move(target), false) {}
  ~SerialQueue() override;

  void push(Work* work) override;
  bool tryEnter(bool barrier) override;
  void leave() override;
  Outcome drain(Turn& turn) override;
  void suspend() override;
  void resume() override;

 private:
  Work* ownedMark() noexcept { return &token_; }
  void schedule();
  /// Gives the queue up unless there is new work. The reference given back may be the last.
  bool goIdle(QueueRef& last);
  void takeNewWork() noexcept;
  /// Gives a suspended queue up to the resume() that will come; false when it has come.
  bool park(QueueRef& last);
  bool isSuspended() const noexcept { return suspensions_.load(std::memory_order_acquire) > 0; }
  Outcome runBlocks(Turn& turn, QueueRef& last);

  std::atomic<Work*> arrived_{nullptr};  // null: idle; else newest first, down to the owned mark
  Work* ready_ = nullptr;                // oldest first
  QueueRef self_;                        // set while work is scheduled
  QueueToken token_{*this};
  std::atomic<std::int32_t> suspensions_{0};
  std::mutex parking_;
  bool parked_ = false;
};

}  // namespace skelda::platform
