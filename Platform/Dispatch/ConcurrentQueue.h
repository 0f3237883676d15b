#pragma once

#include <mutex>

#include "Platform/Dispatch/QueueCore.h"
#include "Platform/Dispatch/WorkList.h"

namespace skelda::platform {

/// A queue that lets its blocks through to its target as they come, and holds them back in order
/// while it is suspended, while a barrier block runs, and while one waits for those before it.
class ConcurrentQueue final : public QueueCore {
 public:
  ConcurrentQueue(std::string_view label, QueueRef target)
      : QueueCore(label, std::move(target), false) {}
  ~ConcurrentQueue() override;

  void push(Work* work) override;
  bool tryEnter(bool barrier) override;
  void leave() override;
  void suspend() override;
  void resume() override;

 private:
  // All of these under the lock, which is taken before that of a target.
  bool mayStart(bool barrier) const noexcept;
  void start(Work* work);
  void startWhatMay();

  std::mutex mutex_;
  WorkList heldBack_;
  std::uint32_t active_ = 0;  // let through and not yet left
  bool barrier_ = false;      // what is active is a barrier
  std::int32_t suspensions_ = 0;
  QueueRef self_;  // set while blocks are active
};

}  // namespace skelda::platform
