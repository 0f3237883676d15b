#include "Platform/Dispatch/QueueCore.h"

#include <exception>
#include <new>
#include <thread>

#include "Platform/Base/Log.h"
#include "Platform/Dispatch/BlockingRegion.h"
#include "Platform/Dispatch/Futex.h"
#include "Platform/Dispatch/Timers.h"
#include "Platform/Dispatch/Wanted.h"

namespace skelda::platform {

namespace {

// Most turns come within a microsecond or two, which is less than a sleep costs.
constexpr int kSpins = 60;

bool severalProcessors() noexcept {
  static const bool several = std::thread::hardware_concurrency() > 1;
  return several;
}

std::uint32_t sleepUntilSet(std::atomic<std::uint32_t>& flag) noexcept {
  if (severalProcessors()) {
    for (int spin = 0; spin < kSpins; ++spin) {
      if (const std::uint32_t value = flag.load(std::memory_order_acquire)) return value;
      relaxProcessor();
    }
  }
  const BlockingRegion region;
  for (;;) {
    if (const std::uint32_t value = flag.load(std::memory_order_acquire)) return value;
    Wanted::wait(flag, 0);
  }
}

void set(std::atomic<std::uint32_t>& flag, std::uint32_t value = 1) noexcept {
  flag.store(value, std::memory_order_release);
  futexWake(flag, 1);
}

/// A synchronous block that another thread runs; lives on the stack of the one who waits for it.
struct RemoteBlock : Work {
  explicit RemoteBlock(BlockRef callable) noexcept
      : Work(Kind::block, &runAndTell), block(callable), caller(QueueCore::Running::current()) {}

  static void runAndTell(Work* work, bool run) noexcept {
    auto* self = static_cast<RemoteBlock*>(work);
    self->hasRun = run;
    try {
      const QueueCore::Running asTheCaller(self->caller);
      if (run) self->block();
    } catch (...) {
      self->thrown = std::current_exception();
    }
    set(self->done);
  }

  BlockRef block;
  const QueueCore::Running* caller;
  bool hasRun = false;
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

QueueCore::Running::Running(const QueueCore* queue, const Running* waiting) noexcept
    : queue_(queue), waiting_(waiting), outer_(currentlyRunning) {
  currentlyRunning = this;
}
QueueCore::Running::~Running() {
  currentlyRunning = outer_;
}

const QueueCore::Running* QueueCore::Running::current() noexcept {
  return currentlyRunning;
}

bool QueueCore::Running::includes(const QueueCore& queue) const noexcept {
  for (const Running* running = this; running != nullptr; running = running->outer_) {
    if (running->waiting_ != nullptr && running->waiting_->includes(queue)) return true;
    for (const QueueCore* at = running->queue_; at != nullptr; at = at->target()) {
      if (at == &queue) return true;
    }
  }
  return false;
}

const std::string& QueueCore::Running::label() const noexcept {
  return queue_ != nullptr ? queue_->label() : outer_->label();
}

QueueCore::QueueCore(std::string_view label, QueueRef target, bool pinned)
    : label_(label),
      target_(target != nullptr ? static_cast<QueueCore&>(*target).shared_from_this() : nullptr),
      pinned_(pinned || (target_ != nullptr && target_->pinned_)) {}

bool QueueCore::isCurrent() const noexcept {
  return currentlyRunning != nullptr && currentlyRunning->includes(*this);
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
  Timers::shared().submitAt(when, shared_from_this(), makeWork(std::move(block)));
}

void QueueCore::syncHere(BlockRef block, bool barrier) {
  if (const Running* const caller = currentlyRunning) {
    if (syncWithin(*caller, block, barrier)) return;
  }
  if (pinned_) return syncElsewhere(block, barrier);

  Waiter waiter;
  for (QueueCore* queue = this; queue != nullptr; queue = queue->target()) {
    const bool asBarrier = barrier && queue == this;
    if (queue->tryEnter(asBarrier)) continue;
    queue->submit(&waiter, asBarrier);
    if (!waiter.wait()) {
      for (QueueCore* entered = this; entered != queue; entered = entered->target()) {
        entered->leave();
      }
      refuseWait(queue->label());
    }
    break;  // and the queues below are ours as well
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
  if (!remote.hasRun) refuseWait(target()->label());
  if (remote.thrown != nullptr) std::rethrow_exception(remote.thrown);
}

/// From inside a block that holds this queue, or one below it, for its caller: nothing of them runs
/// before the block is over, so it can only go on at once. False where neither is so.
bool QueueCore::syncWithin(const Running& caller, BlockRef block, bool barrier) {
  const bool holdsThis = caller.includes(*this);
  if (holdsThis && runsAlone()) refuseWait(caller.label());
  const QueueCore* held = target();
  while (held != nullptr && !(held->runsAlone() && caller.includes(*held))) held = held->target();
  if (held == nullptr) {
    if (holdsThis && barrier && target() != nullptr) refuseWait(caller.label());
    return false;
  }
  for (const QueueCore* queue = this; queue != held; queue = queue->target()) {
    if (queue->isSuspended()) refuseWait(queue->label());
  }
  const Running running(this);
  block();
  return true;
}

void QueueCore::refuseWait(const std::string& other) const {
  const std::string reason = "platform::Queue: a synchronous block on \"" + label_ +
                             "\" would wait for ever for \"" + other + "\"";
  Log::write(reason);
  throw WaitRefused(reason);
}

void QueueCore::throwAway(Work* work) {
  QueueCore* queue = work->origin;
  switch (work->kind) {
    case Work::Kind::waiter:
      static_cast<Waiter*>(work)->refuse();
      break;
    case Work::Kind::queue:
      static_cast<QueueToken*>(work)->queue.throwAllAway();
      break;
    case Work::Kind::block:
      work->finish(work, false);
      break;
  }
  while (queue != this && queue != nullptr) {
    QueueCore* const next = queue->target();  // leaving may be the end of a queue
    queue->leave();
    queue = next;
  }
}

Outcome QueueCore::drain(Turn&) {
  return Outcome::done;
}

namespace {

/// A block that memory does not suffice for ends with a line, not with the process: the queue goes
/// on with the next.
void run(Work* work) noexcept {
  try {
    work->finish(work, true);
  } catch (const std::bad_alloc&) {
    Log::write("platform::Queue: a block ended for want of memory");
  }
}

}  // namespace

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
        run(work);
      } else {
        const QueueCore::Running running(origin);
        run(work);
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

bool Waiter::wait() noexcept {
  return sleepUntilSet(answer_) == kTurn;
}
void Waiter::handOver() noexcept {
  set(answer_, kTurn);
}
void Waiter::refuse() noexcept {
  set(answer_, kRefused);
}

}  // namespace skelda::platform
