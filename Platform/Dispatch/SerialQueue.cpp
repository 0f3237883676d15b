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

SerialQueue::~SerialQueue() {
  // Only a suspended queue that nobody can resume any more goes with blocks in it.
  if (last_.load(std::memory_order_acquire) == nullptr) return;
  while (Work* const work = first()) {
    popFirst();
    work->finish(work, false);
  }
}

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
    QueueRef last;
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

bool SerialQueue::goIdle(QueueRef& last) {
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
  QueueRef last;  // outlives what follows
  const Running running(this);
  return runBlocks(turn, last);
}

Outcome SerialQueue::runBlocks(Turn& turn, QueueRef& last) {
  for (;;) {
    Work* work = first();
    if (work == nullptr) {
      if (goIdle(last)) return Outcome::done;
      work = first();
    }
    if (isSuspended() && park(last)) return Outcome::done;
    if (turn.isOver()) {
      schedule();
      return Outcome::done;
    }
    popFirst();
    if (execute(work, this, turn) == Outcome::handedOver) return Outcome::handedOver;
  }
}

bool SerialQueue::park(QueueRef& last) {
  const std::lock_guard lock(parking_);
  if (!isSuspended()) return false;
  parked_ = true;
  last = std::move(self_);
  return true;
}

void SerialQueue::suspend() {
  suspensions_.fetch_add(1, std::memory_order_acq_rel);
}

void SerialQueue::resume() {
  {
    const std::lock_guard lock(parking_);
    if (suspensions_.fetch_sub(1, std::memory_order_acq_rel) != 1 || !parked_) return;
    parked_ = false;
  }
  schedule();
}

}  // namespace skelda::platform
