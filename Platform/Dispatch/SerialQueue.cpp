#include "Platform/Dispatch/SerialQueue.h"

#include <sched.h>

#include "Platform/Dispatch/Futex.h"

namespace skelda::platform {

namespace {

/// Waits for the one who has taken the place behind `work` to link itself to it, which is its very
/// next instruction; unless the system took the processor away in between.
Work* waitForNext(const Work& work) noexcept {
  constexpr int kSpins = 100;
  for (int spin = 0;; ++spin) {
    if (Work* const next = work.next.load(std::memory_order_acquire)) return next;
    if (spin < kSpins) {
      relaxProcessor();
    } else {
      sched_yield();
    }
  }
}

}  // namespace

void SerialQueue::push(Work* work) {
  work->next.store(nullptr, std::memory_order_relaxed);
  Work* const before = last_.exchange(work, std::memory_order_acq_rel);
  if (before != nullptr) {
    before->next.store(work, std::memory_order_release);
  } else {
    first_ = work;
    schedule();
  }
}

void SerialQueue::schedule() {
  if (self_ == nullptr) self_ = shared_from_this();
  token_.origin = target();
  target()->push(&token_);
}

bool SerialQueue::tryEnter(bool) {
  Work* idle = nullptr;
  if (!last_.compare_exchange_strong(idle, &placeholder_, std::memory_order_acquire,
                                     std::memory_order_relaxed)) {
    return false;
  }
  if (!isSuspended()) return true;
  leave();
  return false;
}

void SerialQueue::leave() {
  Work* next = first();
  if (next == nullptr) {
    std::shared_ptr<QueueCore> last;
    if (goIdle(last)) return;
    next = first();
  }
  // One waiting thread after the other needs no third one between them. Not below a target that
  // others share: they would have to wait until the waiters have come to an end.
  if (next->kind == Work::Kind::waiter && target()->target() == nullptr && !isSuspended()) {
    popFirst();
    static_cast<Waiter*>(next)->handOver();
    return;
  }
  schedule();
}

Work* SerialQueue::first() noexcept {
  if (first_ != nullptr) return first_;
  if (last_.load(std::memory_order_relaxed) == &placeholder_) return nullptr;
  first_ = waitForNext(placeholder_);
  placeholder_.next.store(nullptr, std::memory_order_relaxed);
  return first_;
}

void SerialQueue::popFirst() noexcept {
  Work* const work = first_;
  first_ = work->next.load(std::memory_order_acquire);
  if (first_ == nullptr) {
    Work* only = work;
    if (last_.compare_exchange_strong(only, &placeholder_, std::memory_order_acq_rel,
                                      std::memory_order_relaxed)) {
      return;
    }
    first_ = waitForNext(*work);
  }
  __builtin_prefetch(first_);
}

bool SerialQueue::goIdle(std::shared_ptr<QueueCore>& last) {
  last = std::move(self_);
  Work* nothing = &placeholder_;
  if (last_.compare_exchange_strong(nothing, nullptr, std::memory_order_release,
                                    std::memory_order_relaxed)) {
    return true;
  }
  self_ = std::move(last);
  return false;
}

Outcome SerialQueue::drain(Turn& turn) {
  std::shared_ptr<QueueCore> last;  // outlives what follows
  const Running running(this);
  return runBlocks(turn, last);
}

Outcome SerialQueue::runBlocks(Turn& turn, std::shared_ptr<QueueCore>& last) {
  for (;;) {
    Work* work = first();
    if (work == nullptr) {
      if (goIdle(last)) return Outcome::done;
      work = first();
    }
    if (isSuspended()) {
      const Parked parked = park(last);
      if (parked == Parked::here) return Outcome::done;
      if (parked == Parked::abandoned) {
        throwListAway();
        continue;
      }
    }
    if (turn.isOver()) {
      schedule();
      return Outcome::done;
    }
    popFirst();
    if (execute(work, this, turn) == Outcome::handedOver) return Outcome::handedOver;
  }
}

SerialQueue::Parked SerialQueue::park(std::shared_ptr<QueueCore>& last) {
  const MutexLock lock(parking_);
  if (!isSuspended()) return Parked::resumed;
  if (abandoned_) return Parked::abandoned;
  parked_ = true;
  last = std::move(self_);
  return Parked::here;
}

void SerialQueue::abandon() {
  {
    const MutexLock lock(parking_);
    abandoned_ = true;
    if (!std::exchange(parked_, false)) return;  // whoever comes to park it sees it
  }
  throwAllAway();
}

void SerialQueue::throwAllAway() {
  std::shared_ptr<QueueCore> last;
  do {
    throwListAway();
  } while (!goIdle(last));
}

void SerialQueue::throwListAway() {
  while (Work* const work = first()) {
    popFirst();
    throwAway(work);
  }
}

void SerialQueue::suspend() {
  suspensions_.fetch_add(1, std::memory_order_acq_rel);
}

void SerialQueue::resume() {
  {
    const MutexLock lock(parking_);
    if (suspensions_.fetch_sub(1, std::memory_order_acq_rel) != 1 || !parked_) return;
    parked_ = false;
  }
  schedule();
}

}  // namespace skelda::platform
