#include "Platform/Dispatch/ConcurrentQueue.h"

namespace skelda::platform {

ConcurrentQueue::~ConcurrentQueue() {
  // Only a suspended queue that nobody can resume any more goes with blocks in it.
  while (Work* const work = heldBack_.pop()) work->finish(work, false);
}

bool ConcurrentQueue::mayStart(bool barrier) const noexcept {
  return suspensions_ <= 0 && !barrier_ && (!barrier || active_ == 0);
}

void ConcurrentQueue::start(Work* work) {
  ++active_;
  barrier_ = work->barrier;
  if (work->kind == Work::Kind::waiter && target()->target() == nullptr) {
    static_cast<Waiter*>(work)->handOver();
    return;
  }
  if (self_ == nullptr) self_ = shared_from_this();
  target()->push(work);
}

void ConcurrentQueue::startWhatMay() {
  while (!heldBack_.empty() && mayStart(heldBack_.first().barrier)) start(heldBack_.pop());
}

void ConcurrentQueue::push(Work* work) {
  const std::lock_guard lock(mutex_);
  if (heldBack_.empty() && mayStart(work->barrier)) {
    start(work);
  } else {
    heldBack_.append(work);
  }
}

bool ConcurrentQueue::tryEnter(bool barrier) {
  const std::lock_guard lock(mutex_);
  if (!heldBack_.empty() || !mayStart(barrier)) return false;
  ++active_;
  barrier_ = barrier;
  return true;
}

void ConcurrentQueue::leave() {
  QueueRef last;  // goes after the lock
  const std::lock_guard lock(mutex_);
  --active_;
  barrier_ = false;  // a barrier was alone
  startWhatMay();
  if (active_ == 0) last = std::move(self_);
}

void ConcurrentQueue::suspend() {
  const std::lock_guard lock(mutex_);
  ++suspensions_;
}

void ConcurrentQueue::resume() {
  const std::lock_guard lock(mutex_);
  --suspensions_;
  startWhatMay();
}

}  // namespace skelda::platform
