#include "Platform/Dispatch/ConcurrentQueue.h"

namespace skelda::platform {

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
  const MutexLock lock(mutex_);
  if (heldBack_.empty() && mayStart(work->barrier)) {
    start(work);
    return;
  }
  heldBack_.append(work);
  // Not here: whoever pushes may hold the lock of a queue that the work came through.
  if (abandoned_ && suspensions_ > 0) {
    Queue::global()->async([self = shared_from_this(), this] { throwHeldBackAway(); });
  }
}

bool ConcurrentQueue::tryEnter(bool barrier) {
  const MutexLock lock(mutex_);
  if (!heldBack_.empty() || !mayStart(barrier)) return false;
  ++active_;
  barrier_ = barrier;
  return true;
}

void ConcurrentQueue::leave() {
  std::shared_ptr<QueueCore> last;  // goes after the lock
  const MutexLock lock(mutex_);
  --active_;
  barrier_ = false;  // a barrier was alone
  startWhatMay();
  if (active_ == 0) last = std::move(self_);
}

void ConcurrentQueue::suspend() {
  const MutexLock lock(mutex_);
  ++suspensions_;
}

void ConcurrentQueue::resume() {
  const MutexLock lock(mutex_);
  --suspensions_;
  startWhatMay();
}

bool ConcurrentQueue::isSuspended() const noexcept {
  const MutexLock lock(mutex_);
  return suspensions_ > 0;
}

void ConcurrentQueue::abandon() {
  {
    const MutexLock lock(mutex_);
    abandoned_ = true;
    if (suspensions_ <= 0) return;
  }
  throwHeldBackAway();
}

void ConcurrentQueue::throwHeldBackAway() {
  for (;;) {
    Work* work = nullptr;
    {
      const MutexLock lock(mutex_);
      work = heldBack_.pop();
    }
    if (work == nullptr) return;
    throwAway(work);
  }
}

}  // namespace skelda::platform
