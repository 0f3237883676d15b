#pragma once

#include <atomic>

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/QueueCore.h"

namespace skelda::platform {

/// A queue that runs one block at a time.
///
/// Work is a list from the first, which the owner knows, to the last. Whoever submits exchanges the
/// last one for its own work, without a lock, and then links the two. Who finds no last one finds
/// the queue idle, and becomes its owner. Owners are, one after the other: that one, the target's
/// list, the thread that drains the queue there, and threads in a synchronous call. Only the owner
/// touches what has no atomic type. While an owner has nothing to run a placeholder stands for the
/// last one, so the list is never empty while there is an owner.
class SerialQueue final : public QueueCore {
 public:
  SerialQueue(std::string_view label, QueueRef target)
      : QueueCore(label, std::move(target), false) {}

  void push(Work* work) override;
  bool tryEnter(bool barrier) override;
  void leave() override;
  Outcome drain(Turn& turn) override;
  void suspend() override;
  void resume() override;
  bool runsAlone() const noexcept override { return true; }
  bool isSuspended() const noexcept override {
    return suspensions_.load(std::memory_order_acquire) > 0;
  }
  void abandon() override;
  void throwAllAway() override;

 private:
  void schedule();
  /// The first piece of work, or null. It stays in the list.
  Work* first() noexcept;
  void popFirst() noexcept;
  /// Gives the queue up unless there is new work. The reference given back may be the last.
  bool goIdle(std::shared_ptr<QueueCore>& last);
  enum class Parked { here, resumed, abandoned };
  /// Gives a suspended queue up to the resume() that will come.
  Parked park(std::shared_ptr<QueueCore>& last);
  void throwListAway();
  Outcome runBlocks(Turn& turn, std::shared_ptr<QueueCore>& last);

  std::atomic<Work*> last_{nullptr};
  Work* first_ = nullptr;  // null: what follows the placeholder
  Work placeholder_{Work::Kind::queue, nullptr};
  std::shared_ptr<QueueCore> self_;  // set while work is scheduled
  QueueToken token_{*this};
  std::atomic<std::int32_t> suspensions_{0};
  Mutex parking_;
  bool parked_ GUARDED_BY(parking_) = false;
  bool abandoned_ GUARDED_BY(parking_) = false;
};

}  // namespace skelda::platform
