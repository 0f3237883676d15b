#pragma once

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/QueueCore.h"
#include "Platform/Dispatch/WorkList.h"

namespace skelda::platform {

/// A queue that lets its blocks through to its target as they come, and holds them back in order
/// while it is suspended, while a barrier block runs, and while one waits for those before it.
class ConcurrentQueue final : public QueueCore {
 public:
  ConcurrentQueue(std::string_view label, QueueRef target)
      : QueueCore(label, std::move(target), false) {}

  void push(Work* work) override;
  bool tryEnter(bool barrier) override;
  void leave() override;
  void suspend() override;
  void resume() override;
  bool isSuspended() const noexcept override;
  void abandon() override;

 private:
  bool mayStart(bool barrier) const noexcept REQUIRES(mutex_);
  void start(Work* work) REQUIRES(mutex_);
  void startWhatMay() REQUIRES(mutex_);
  void throwHeldBackAway();

  mutable Mutex mutex_;  // taken before that of a target
  WorkList heldBack_ GUARDED_BY(mutex_);
  std::uint32_t active_ GUARDED_BY(mutex_) = 0;  // let through and not yet left
  bool barrier_ GUARDED_BY(mutex_) = false;      // what is active is a barrier
  std::int32_t suspensions_ GUARDED_BY(mutex_) = 0;
  bool abandoned_ GUARDED_BY(mutex_) = false;
  std::shared_ptr<QueueCore> self_ GUARDED_BY(mutex_);  // set while blocks are active
};

}  // namespace skelda::platform
