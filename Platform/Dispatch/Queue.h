#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Dispatch/Block.h"
#include "Platform/Dispatch/Group.h"
#include "Platform/Dispatch/Time.h"
#include "Platform/Dispatch/Work.h"

namespace skelda::platform {

class Queue;
using QueueRef = std::shared_ptr<Queue>;

/// A synchronous submission that could only wait for ever. Names both queues: the one submitted to
/// and the one that will not come free.
class WaitRefused : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

/// A dispatch queue. Cheap: no queue owns a thread. A serial queue runs its blocks one at a time in
/// the order submitted, whatever mix of calls submitted them; a concurrent queue runs them side by
/// side and a barrier block alone. A queue with a target runs its blocks on the target (a
/// concurrent queue whose target is serial is serial). A queue keeps itself alive while it has
/// blocks. Every operation is safe from any thread; whoever calls one holds the queue until it is
/// over.
///
/// What an asynchronous block throws ends the process; what a synchronous one throws passes through
/// to the caller and leaves the queue usable.
class Queue {
 public:
  enum class Priority { high, normal, low, background };

  static QueueRef serial(std::string_view label, QueueRef target = nullptr);
  static QueueRef concurrent(std::string_view label, QueueRef target = nullptr);
  /// Served by the layer's own thread, or by the host's in MainQueue::run().
  static const QueueRef& main();
  static const QueueRef& global(Priority priority = Priority::normal);

  Queue(const Queue&) = delete;
  Queue& operator=(const Queue&) = delete;
  virtual const std::string& label() const noexcept = 0;
  /// Whether the calling thread is running a block of this queue, itself, through a queue that
  /// targets it, or for a caller that waits inside a block of it.
  virtual bool isCurrent() const noexcept = 0;

  /// Like async() and barrierAsync(), for a callable of any size, in one allocation.
  template <class F>
  void post(F&& callable) {
    submit(makeWork(std::forward<F>(callable)), false);
  }
  template <class F>
  void barrierPost(F&& callable) {
    submit(makeWork(std::forward<F>(callable)), true);
  }
  /// The same of work that was made by the caller, and is taken over.
  void barrierPostWork(Work* work) { submit(work, true); }

  virtual void async(Block block) = 0;
  virtual void barrierAsync(Block block) = 0;
  /// Enters `group` now, leaves it when the block has run.
  virtual void groupAsync(const GroupRef& group, Block block) = 0;
  /// Runs the block on the calling thread: at once when the queue is idle, else when its turn
  /// comes. On a queue above the main one it runs on the main thread, for the caller. On a queue
  /// above one that the caller holds already it runs at once, before what waits there: nothing of
  /// that could run earlier. Throws WaitRefused instead of waiting from inside a block of a serial
  /// queue for that queue, or for one that is suspended and that nobody can resume.
  virtual void sync(BlockRef block) = 0;
  virtual void barrierSync(BlockRef block) = 0;
  /// Submits the block at `when`.
  virtual void after(DispatchTime when, Block block) = 0;

  /// Suspensions count; a suspended queue keeps its blocks in order and runs none (one that is
  /// running goes on). A resume() too many is a debt that the next suspend() pays. A suspended
  /// queue that nobody holds any more goes, and its blocks with it: nobody could resume it.
  virtual void suspend() = 0;
  virtual void resume() = 0;

 protected:
  Queue() = default;
  /// Takes the work over.
  virtual void submit(Work* work, bool barrier) = 0;
  ~Queue() = default;
};

}  // namespace skelda::platform
