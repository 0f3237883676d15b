#include "Platform/Dispatch/QueueCore.h"

#include <exception>
#include <thread>

#include "Platform/Dispatch/BlockingRegion.h"
#include "Platform/Dispatch/Futex.h"
#include "Platform/Dispatch/Timers.h"

namespace skelda::platform {

namespace {

// Most turns come within a microsecond or two, which is less than a sleep costs.
constexpr int kSpins = 60;

bool severalProcessors() noexcept {
  static const bool several = std::thread::hardware_concurrency() > 1;
  return several;
}

void sleepUntilSet(std::atomic<std::uint32_t>& flag) noexcept {
  if (severalProcessors()) {
    for (int spin = 0; spin < kSpins; ++spin) {
      if (flag.load(std::memory_order_acquire) != 0) return;
      relaxProcessor();
    }
  }
  const BlockingRegion region;
  while (flag.load(std::memory_order_acquire) == 0) futexWait(flag, 0);
}

void set(std::atomic<std::uint32_t>& flag) noexcept {
  flag.store(1, std::memory_order_release);
  futexWake(flag, 1);
}

/// A synchronous block that another thread runs; lives on the stack of the one who waits for it.
struct RemoteBlock : Work {
  explicit RemoteBlock(BlockRef callable) noexcept
      : Work(Kind::block, &runAndTell), block(callable) {}

  static void runAndTell(Work* work, bool run) noexcept {
    auto* self = static_cast<RemoteBlock*>(work);
    try {
      if (run) self->block();
    } catch (...) {
      self->thrown = std::current_exception();
    }
    set(self->done);
  }

  BlockRef block;
  std::exception_ptr thrown;
  std::atomic<std::uint32_t> done{0};
};

/// Leaves its group when it goes, whether its block has run or was thrown away.
class GroupPlace {
 public:
  explicit GroupPlace(GroupRef group) : group_(std::move(group)) { group_->enter(); }
  GroupPlace(GroupPlace&&) noexcept = default;
  ~GroupPlace() {
    if (group_ != nullptr) group_->leave();
  }

 private:
  GroupRef group_;
};

}  // namespace

static thread_local const QueueCore::Running* currentlyRunning
    __attribute__((tls_model("initial-exec"))) = nullptr;

QueueCore::Running::Running(const QueueCore* queue) noexcept
    : queue_(queue), outer_(currentlyRunning) {
  currentlyRunning = this;
}
QueueCore::Running::~Running() {
  currentlyRunning = outer_;
}

QueueCore::QueueCore(std::string_view label, QueueRef target, bool pinned)
    : label_(label),
      target_(std::static_pointer_cast<QueueCore>(std::move(target))),
      pinned_(pinned || (target_ != nullptr && target_->pinned_)) {}

bool QueueCore::isCurrent() const noexcept {
  for (const Running* running = currentlyRunning; running != nullptr; running = running->outer_) {
    for (const QueueCore* queue = running->queue_; queue != nullptr; queue = queue->target()) {
      if (queue == this) return true;
    }
  }
  return false;
}

void QueueCore::setTarget(QueueRef target) {
  if (target == nullptr) target = Queue::global();
  target_ = std::static_pointer_cast<QueueCore>(std::move(target));
  pinned_ = target_->pinned_;
}

void QueueCore::submit(Work* work, bool barrier) {
  work->origin = this;
  work->barrier = barrier;
  push(work);
}

void QueueCore::async(Block block) {
  submit(makeWork(std::move(block)), false);
}
void QueueCore::barrierAsync(Block block) {
  submit(makeWork(std::move(block)), true);
}

void QueueCore::groupAsync(const GroupRef& group, Block block) {
  post([place = GroupPlace(group), body = std::move(block)]() mutable {
    body();
    // What the block holds goes before the group hears of it.
    body = nullptr;
  });
}

void QueueCore::after(DispatchTime when, Block block) {
  Timers::shared().submitAt(when, std::static_pointer_cast<QueueCore>(shared_from_this()),
                            makeWork(std::move(block)));
}

void QueueCore::syncHere(BlockRef block, bool barrier) {
  if (pinned_) return syncElsewhere(block, barrier);

  Waiter waiter;
  for (QueueCore* queue = this; queue != nullptr; queue = queue->target()) {
    const bool asBarrier = barrier && queue == this;
    if (queue->tryEnter(asBarrier)) continue;
    queue->submit(&waiter, asBarrier);
    waiter.wait();  // and then the queues above are ours as well
    break;
  }

  struct Leaving {
    QueueCore* first;
    ~Leaving() {
      for (QueueCore* queue = first; queue != nullptr; queue = queue->target()) queue->leave();
    }
  } const leaving{this};
  const Running running(this);
  block();
}

void QueueCore::syncElsewhere(BlockRef block, bool barrier) {
  RemoteBlock remote(block);
  submit(&remote, barrier);
  sleepUntilSet(remote.done);
  if (remote.thrown != nullptr) std::rethrow_exception(remote.thrown);
}

Outcome QueueCore::drain(Turn&) {
  return Outcome::done;
}

Outcome execute(Work* work, QueueCore* executor, Turn& turn) {
  QueueCore* const origin = work->origin;
  switch (work->kind) {
    case Work::Kind::waiter:
      static_cast<Waiter*>(work)->handOver();
      return Outcome::handedOver;
    case Work::Kind::queue:
      if (static_cast<QueueToken*>(work)->queue.drain(turn) == Outcome::handedOver) {
        return Outcome::handedOver;
      }
      break;
    case Work::Kind::block:
      turn.countBlock();
      if (origin == executor) {
        work->finish(work, true);
      } else {
        const QueueCore::Running running(origin);
        work->finish(work, true);
      }
      break;
  }
  QueueCore* queue = origin;
  while (queue != executor && queue != nullptr) {
    QueueCore* const next = queue->target();  // leaving may be the end of a queue
    queue->leave();
    queue = next;
  }
  return Outcome::done;
}

void Waiter::wait() noexcept {
  sleepUntilSet(turn_);
}
void Waiter::handOver() noexcept {
  set(turn_);
}

}  // namespace skelda::platform
