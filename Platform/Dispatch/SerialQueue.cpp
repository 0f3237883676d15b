#include "Platform/Dispatch/SerialQueue.h"

namespace skelda::platform {

SerialQueue::~SerialQueue() {
  // Only a suspended queue that nobody can resume any more goes with blocks in it.
  if (arrived_.load(std::memory_order_acquire) != nullptr) takeNewWork();
  while (ready_ != nullptr) {
    Work* const work = ready_;
    ready_ = work->next;
    work->finish(work, false);
  }
}

void SerialQueue::push(Work* work) {
  Work* seen = arrived_.load(std::memory_order_relaxed);
  do {
    work->next = seen == nullptr ? ownedMark() : seen;
  } while (!arrived_.compare_exchange_weak(seen, work, std::memory_order_acq_rel,
                                           std::memory_order_relaxed));
  if (seen == nullptr) schedule();
}

void SerialQueue::schedule() {
  if (self_ == nullptr) self_ = shared_from_this();
  token_.origin = target();
  target()->push(&token_);
}

bool SerialQueue::tryEnter(bool) {
  Work* idle = nullptr;
  if (!arrived_.compare_exchange_strong(idle, ownedMark(), std::memory_order_acquire,
                                        std::memory_order_relaxed)) {
    return false;
  }
  if (!isSuspended()) return true;
  leave();
  return false;
}

void SerialQueue::leave() {
  if (ready_ == nullptr) {
    QueueRef last;
    if (goIdle(last)) return;
    takeNewWork();
  }
  // One waiting thread after the other needs no third one between them. Not below a target that
  // others share: they would have to wait until the waiters have come to an end.
  if (ready_->kind == Work::Kind::waiter && target()->target() == nullptr && !isSuspended()) {
    Work* const next = ready_;
    ready_ = next->next;
    static_cast<Waiter*>(next)->handOver();
    return;
  }
  schedule();
}

bool SerialQueue::goIdle(QueueRef& last) {
  last = std::move(self_);
  Work* mine = ownedMark();
  if (arrived_.compare_exchange_strong(mine, nullptr, std::memory_order_release,
                                       std::memory_order_relaxed)) {
    return true;
  }
  self_ = std::move(last);
  return false;
}

void SerialQueue::takeNewWork() noexcept {
  Work* newest = arrived_.exchange(ownedMark(), std::memory_order_acquire);
  while (newest != ownedMark()) {
    Work* const older = newest->next;
    newest->next = ready_;
    ready_ = newest;
    newest = older;
  }
}

Outcome SerialQueue::drain(Turn& turn) {
  QueueRef last;  // outlives what follows
  const Running running(this);
  return runBlocks(turn, last);
}

Outcome SerialQueue::runBlocks(Turn& turn, QueueRef& last) {
  for (;;) {
    if (ready_ == nullptr) {
      if (goIdle(last)) return Outcome::done;
      takeNewWork();
    }
    if (isSuspended() && park(last)) return Outcome::done;
    if (turn.isOver()) {
      schedule();
      return Outcome::done;
    }
    Work* const work = ready_;
    ready_ = work->next;
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
