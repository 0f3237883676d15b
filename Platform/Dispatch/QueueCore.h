#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Platform/Dispatch/Queue.h"
#include "Platform/Dispatch/Work.h"

namespace skelda::platform {

/// How much one turn on a thread may still do before it lets others have theirs.
class Turn {
 public:
  static constexpr std::uint32_t kBlocks = 64;

  /// `yield` asks for an end from outside; `progress` is told of every block. Either may be null.
  explicit Turn(const std::atomic<bool>* yield = nullptr,
                std::atomic<std::uint32_t>* progress = nullptr) noexcept
      : yield_(yield), progress_(progress) {}
  bool isOver() const noexcept {
    return left_ == 0 || (yield_ != nullptr && yield_->load(std::memory_order_relaxed));
  }
  void countBlock() noexcept {
    if (left_ > 0) --left_;
    if (progress_ != nullptr) {
      progress_->store(progress_->load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
  }

 private:
  std::uint32_t left_ = kBlocks;
  const std::atomic<bool>* yield_;
  std::atomic<std::uint32_t>* progress_;
};

enum class Outcome {
  done,
  /// The executing queues now belong to a waiting thread: their state is not to be touched.
  handedOver,
};

/// What all queues share. A queue passes its work to its target, up to a root that has threads.
/// Whoever runs a piece of work holds every queue from its origin to the root; when it has run they
/// are left in that order.
class QueueCore : public Queue, public std::enable_shared_from_this<QueueCore> {
 public:
  const std::string& label() const noexcept override { return label_; }
  bool isCurrent() const noexcept override;
  void async(Block block) override;
  void barrierAsync(Block block) override;
  void groupAsync(const GroupRef& group, Block block) override;
  void sync(BlockRef block) override { syncHere(block, false); }
  void barrierSync(BlockRef block) override { syncHere(block, true); }
  void after(DispatchTime when, Block block) override;
  void submit(Work* work, bool barrier) override;

  /// Takes work in, in order. The queue runs it, or passes it on.
  virtual void push(Work* work) = 0;
  /// Takes the queue for the calling thread when nothing is running or waiting that comes first.
  virtual bool tryEnter(bool barrier) = 0;
  /// Gives up a place that tryEnter() took, or that a piece of work held.
  virtual void leave() = 0;
  /// Runs blocks of this queue, which is executing on its target.
  virtual Outcome drain(Turn& turn);
  /// Whether no two of its blocks ever run side by side.
  virtual bool runsAlone() const noexcept { return false; }
  virtual bool isSuspended() const noexcept { return false; }

  /// Nobody outside of the layer holds it any more. What it keeps while it is suspended is thrown
  /// away: nobody could resume it.
  virtual void abandon() {}
  /// The queue stood in the list of a target that has been abandoned: so are its own blocks.
  virtual void throwAllAway() {}

  QueueCore* target() const noexcept { return target_.get(); }
  /// Whether its blocks run on threads of their own only, never on that of a synchronous caller.
  bool isPinned() const noexcept { return pinned_; }

  /// While it lives the calling thread runs blocks of the queue.
  class Running {
   public:
    explicit Running(const QueueCore* queue) noexcept : Running(queue, nullptr) {}
    /// For another thread that waits for it meanwhile: what that one runs counts as run here.
    explicit Running(const Running* waiting) noexcept : Running(nullptr, waiting) {}
    ~Running();
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;
    /// The innermost one of the calling thread, or null.
    static const Running* current() noexcept;
    bool includes(const QueueCore& queue) const noexcept;
    const std::string& label() const noexcept;

   private:
    Running(const QueueCore* queue, const Running* waiting) noexcept;

    const QueueCore* const queue_;
    const Running* const waiting_;
    const Running* const outer_;
  };

 protected:
  QueueCore(std::string_view label, QueueRef target, bool pinned);
  /// Destroys a piece of work of this queue's list, and leaves the queues that it came through.
  void throwAway(Work* work);

 private:
  void syncHere(BlockRef block, bool barrier);
  void syncElsewhere(BlockRef block, bool barrier);
  bool syncWithin(const Running& caller, BlockRef block, bool barrier);
  [[noreturn]] void refuseWait(const std::string& other) const;

  const std::string label_;
  const std::shared_ptr<QueueCore> target_;
  const bool pinned_;
};

/// Runs a piece of work that has reached `executor` (null: a root), and leaves the queues that it
/// came through.
Outcome execute(Work* work, QueueCore* executor, Turn& turn);

/// A thread that waits for its turn on a queue; lives on that thread's stack.
class Waiter : public Work {
 public:
  Waiter() noexcept : Work(Kind::waiter, nullptr) {}
  /// False when its turn will never come.
  bool wait() noexcept;
  void handOver() noexcept;
  void refuse() noexcept;

 private:
  static constexpr std::uint32_t kTurn = 1, kRefused = 2;

  std::atomic<std::uint32_t> answer_{0};
};

/// Stands for a queue in the list of its target.
struct QueueToken : Work {
  explicit QueueToken(QueueCore& queueOfBlocks) noexcept
      : Work(Kind::queue, nullptr), queue(queueOfBlocks) {}
  QueueCore& queue;
};

}  // namespace skelda::platform
