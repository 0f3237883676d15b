#include "Platform/Dispatch/WorkerPool.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <thread>
#include <utility>

#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Base/Thread.h"
#include "Platform/Dispatch/BlockingRegion.h"
#include "Platform/Dispatch/EventLoop.h"
#include "Platform/Dispatch/Futex.h"
#include "Platform/Dispatch/QueueCore.h"
#include "Platform/Dispatch/Worker.h"

namespace skelda::platform {

namespace {

constexpr std::uint32_t kMostRunning = 8;    // an agent does not take a big machine over
constexpr std::uint32_t kKeptIdle = 1;       // workers that sleep for ever instead of going
constexpr std::uint32_t kBackedUp = 2;       // work in a ring above which others are called
constexpr std::uint32_t kInjectedEvery = 8;  // turns between looks at the shared lists
constexpr std::uint32_t kLowestEvery = 64;   // takings between those of the lowest priority
constexpr int kPollsBeforeSleep = 12;
constexpr int kPausesPerPoll = 8;
constexpr std::chrono::milliseconds kLinger{500};
constexpr std::chrono::milliseconds kPatience{50};  // between askings for what is wanted

}  // namespace

thread_local WorkerPool::Worker* thisWorker __attribute__((tls_model("initial-exec"))) = nullptr;

WorkerPool::WorkerPool()
    : limit_(std::clamp(std::thread::hardware_concurrency(), 2U, kMostRunning)) {}

WorkerPool& WorkerPool::shared() {
  static NeverDestroyed<WorkerPool> pool([] { return WorkerPool(); });
  return *pool;
}

BlockingRegion::BlockingRegion() noexcept {
  if (thisWorker != nullptr) WorkerPool::shared().beginBlocking();
}
BlockingRegion::~BlockingRegion() {
  if (thisWorker != nullptr) WorkerPool::shared().endBlocking();
}

// ---- Submitting

void WorkerPool::submit(Work* work, Queue::Priority priority) {
  Worker* const me = thisWorker;
  if (me == nullptr || priority != Queue::Priority::normal || !me->ring.push(work)) {
    inject(work, priority);
  } else {
    armTick();
    if (me->ring.size() > kBackedUp && searching_.load(std::memory_order_relaxed) == 0) {
      Called called;
      {
        const MutexLock lock(mutex_);
        if (idle_ > 0) called = callSomebody();
      }
      wake(called);
    }
  }
  afterSubmission();
}

void WorkerPool::inject(Work* work, Queue::Priority priority) noexcept {
  Called called;
  {
    const MutexLock lock(mutex_);
    appendInjected(work, static_cast<std::size_t>(priority));
    called = callSomebody();
  }
  wake(called);
}

void WorkerPool::appendInjected(Work* work, std::size_t priority) noexcept {
  lists_[priority].append(work);
  injected_.fetch_add(1, std::memory_order_seq_cst);
}

Work* WorkerPool::popInjected() noexcept {
  // The highest first, but now and then the lowest, so that nobody waits for ever.
  const bool lowestFirst = ++injectedTaken_ % kLowestEvery == 0;
  for (std::size_t i = 0; i < kPriorities; ++i) {
    Work* const work = lists_[lowestFirst ? kPriorities - 1 - i : i].pop();
    if (work == nullptr) continue;
    injected_.fetch_sub(1, std::memory_order_seq_cst);
    return work;
  }
  return nullptr;
}

Work* WorkerPool::takeInjected() noexcept {
  if (injected_.load(std::memory_order_relaxed) == 0) return nullptr;
  // Not by waiting: whoever submits would then have to wake the one who waits.
  if (!mutex_.try_lock()) return nullptr;
  Work* const work = popInjected();
  mutex_.unlock();
  return work;
}

// ---- Workers come and go

std::uint32_t WorkerPool::running() const noexcept {
  return total_ - idle_ - blocked_.load(std::memory_order_seq_cst);
}

/// Somebody to look for work, unless one is looking already or enough are running. Counted as
/// searching from here on, so that nobody calls a second one meanwhile.
WorkerPool::Called WorkerPool::callSomebody() noexcept {
  if (searching_.load(std::memory_order_seq_cst) > 0) return {};
  if (running() >= limit_ + extra_) {
    armTick();  // which sees when they are stuck
    return {};
  }
  Worker* worker = idleWorkers_;
  if (worker != nullptr) {
    idleWorkers_ = worker->nextIdle;
    worker->isIdle = false;
    --idle_;
  } else {
    worker = workerWithoutThread();
    if (worker == nullptr) {
      askAgain();
      return {};
    }
    ++total_;
  }
  searching_.fetch_add(1, std::memory_order_seq_cst);
  return {worker, std::exchange(worker->hasThread, true)};
}

void WorkerPool::wake(Called called) noexcept {
  if (called.worker == nullptr) return;
  if (called.sleeps) {
    called.worker->woken.store(1, std::memory_order_release);
    futexWake(called.worker->woken, 1);
  } else if (!startThread("skelda-worker", &WorkerPool::runWorker, called.worker)) {
    const MutexLock lock(mutex_);
    searching_.fetch_sub(1, std::memory_order_seq_cst);
    retire(*called.worker);
    askAgain();
  }
}

/// A worker for what waits, where there should be one and is none.
bool WorkerPool::obtain() noexcept {
  Called called;
  {
    const MutexLock lock(mutex_);
    if (injected_.load(std::memory_order_relaxed) > 0) called = callSomebody();
  }
  wake(called);  // which asks again where it is refused again
  return true;
}

void WorkerPool::keepAsking() noexcept {
  Called called;
  {
    const MutexLock lock(mutex_);
    if (idle_ > 0 || total_ == 0) called = callSomebody();
  }
  wake(called);
}

/// The memory of workers is used again but never given back, so that whoever looks
/// for work may walk along their list at any time.
WorkerPool::Worker* WorkerPool::workerWithoutThread() noexcept {
  if (retired_ != nullptr) return std::exchange(retired_, retired_->nextIdle);
  auto* const worker = new (std::nothrow) Worker;
  if (worker == nullptr) return nullptr;
  worker->nextOfAll = all_.load(std::memory_order_relaxed);
  all_.store(worker, std::memory_order_release);
  return worker;
}

void WorkerPool::retire(Worker& worker) noexcept {
  --total_;
  worker.hasThread = false;
  worker.nextIdle = std::exchange(retired_, &worker);
}

// ---- What a worker does

void WorkerPool::runWorker(void* raw) {
  auto* const me = static_cast<Worker*>(raw);
  thisWorker = me;
  shared().run(*me);
}

void WorkerPool::run(Worker& me) {
  for (Work* work = search(me); work != nullptr; work = next(me)) {
    me.yield.store(false, std::memory_order_relaxed);
    Turn turn(&me.yield, &me.progress);
    execute(work, nullptr, turn);
  }
}

/// What to do next; sleeps while there is nothing. Null when the thread is to go.
Work* WorkerPool::next(Worker& me) {
  if (std::exchange(me.mayBeOneTooMany, false)) {
    if (!makeRoom(me)) return nullptr;
    if (me.woken.exchange(0, std::memory_order_acquire) != 0) return search(me);
  }
  if (++me.turns % kInjectedEvery == 0) {
    if (Work* const work = takeInjected()) return work;
  }
  if (Work* const work = me.ring.pop()) return work;
  searching_.fetch_add(1, std::memory_order_seq_cst);
  return search(me);
}

/// Called counted as searching, returns no longer counted.
Work* WorkerPool::search(Worker& me) {
  for (;;) {
    me.watched = nullptr;
    // One who waits awake saves the next submission a wake-up; a second one saves nothing more.
    const bool alone = searching_.load(std::memory_order_relaxed) == 1;
    for (int poll = 0; poll < (alone ? kPollsBeforeSleep : 1); ++poll) {
      Work* work = takeInjected();
      if (work == nullptr) work = steal(me);
      if (work != nullptr) {
        stopSearching();
        return work;
      }
      for (int i = 0; i < kPausesPerPoll; ++i) relaxProcessor();
    }
    Work* last = nullptr;
    Sleep how{};
    {
      const MutexLock lock(mutex_);
      last = popInjected();
      if (last == nullptr) {
        searching_.fetch_sub(1, std::memory_order_seq_cst);
        extra_ = 0;  // whoever was stuck, it goes on without more help
        how = becomeIdle(me);
      }
    }
    if (last != nullptr) {
      stopSearching();
      return last;
    }
    if (!sleep(me, how)) return nullptr;
    me.woken.store(0, std::memory_order_relaxed);
  }
}

/// From the ring of another. A single piece is left alone at first: mostly its owner is on the way
/// to it, and a pipeline is quickest when it stays on one processor.
Work* WorkerPool::steal(Worker& me) noexcept {
  const Worker* watched = nullptr;
  std::uint32_t watchedTaken = 0;
  for (Worker* other = all_.load(std::memory_order_acquire); other != nullptr;
       other = other->nextOfAll) {
    const std::uint32_t size = other == &me ? 0 : other->ring.size();
    if (size == 0) continue;
    const std::uint32_t taken = other->ring.taken();
    if (size > 1 || (me.watched == other && me.watchedTaken == taken)) {
      if (Work* const work = other->ring.pop()) return work;
    }
    watched = other;
    watchedTaken = taken;
  }
  me.watched = watched;
  me.watchedTaken = watchedTaken;
  return nullptr;
}

void WorkerPool::stopSearching() noexcept {
  if (searching_.fetch_sub(1, std::memory_order_seq_cst) != 1) return;
  // What came while this one was searching has called nobody.
  if (injected_.load(std::memory_order_seq_cst) == 0) return;
  Called called;
  {
    const MutexLock lock(mutex_);
    if (injected_.load(std::memory_order_relaxed) > 0) called = callSomebody();
  }
  wake(called);
}

/// After a wait: sleeps if others have taken this worker's place. False when the thread is to go.
bool WorkerPool::makeRoom(Worker& me) {
  Sleep how{};
  {
    const MutexLock lock(mutex_);
    if (running() <= limit_ + extra_) return true;
    emptyRing(me);
    how = becomeIdle(me);
  }
  return sleep(me, how);
}

WorkerPool::Sleep WorkerPool::becomeIdle(Worker& me) noexcept {
  me.nextIdle = std::exchange(idleWorkers_, &me);
  me.isIdle = true;
  const bool stays = ++idle_ <= kKeptIdle;
  return {stays ? DispatchTime::forever : dispatchTimeAfter(kLinger), running() == 0};
}

/// False when the thread is to go; else somebody has counted it as searching.
bool WorkerPool::sleep(Worker& me, Sleep how) noexcept {
  if (how.last) disarmTick();
  while (me.woken.load(std::memory_order_acquire) == 0) {
    if (any() && !EventLoop::shared().keepAsking()) [[unlikely]] {
      futexWait(me.woken, 0, dispatchTimeAfter(kPatience));
      askForAll();
    } else if (!futexWait(me.woken, 0, how.deadline)) {
      if (mayGo(me)) return false;
      how.deadline = DispatchTime::forever;
    }
  }
  return true;
}

/// Whether one whose time to linger is over goes: nobody has called it. The one that was idle first
/// has no such time, and is called last.
bool WorkerPool::mayGo(Worker& me) noexcept {
  const MutexLock lock(mutex_);
  if (!me.isIdle) return false;
  Worker** link = &idleWorkers_;
  while (*link != &me) link = &(*link)->nextIdle;
  *link = me.nextIdle;
  me.isIdle = false;
  --idle_;
  thisWorker = nullptr;  // what the thread does on its way out is not this worker's
  retire(me);
  return true;
}

void WorkerPool::emptyRing(Worker& me) noexcept {
  while (Work* const work = me.ring.pop()) {
    appendInjected(work, static_cast<std::size_t>(Queue::Priority::normal));
  }
}

void WorkerPool::beginBlocking() noexcept {
  Worker& me = *thisWorker;
  if (me.blockingDepth++ > 0) return;
  blocked_.fetch_add(1, std::memory_order_seq_cst);
  if (me.ring.size() == 0 && injected_.load(std::memory_order_seq_cst) == 0) return;
  Called called;
  {
    const MutexLock lock(mutex_);
    emptyRing(me);
    if (injected_.load(std::memory_order_relaxed) > 0) called = callSomebody();
  }
  wake(called);
}

void WorkerPool::endBlocking() noexcept {
  Worker& me = *thisWorker;
  if (--me.blockingDepth > 0) return;
  blocked_.fetch_sub(1, std::memory_order_seq_cst);
  me.mayBeOneTooMany = true;
}

}  // namespace skelda::platform
