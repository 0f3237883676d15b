#include "Platform/Dispatch/Group.h"

#include <climits>
#include <utility>
#include <vector>

#include "Platform/Base/Assertion.h"
#include "Platform/Base/Counted.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/BlockingRegion.h"
#include "Platform/Dispatch/Futex.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Dispatch/Wanted.h"

namespace skelda::platform {

namespace {

class CountingGroup final : public Group {
 public:
  void enter() override {
    const MutexLock lock(mutex_);
    ++count_;
  }

  void leave() override {
    // Whoever waits may let the group go before this is over.
    const GroupRef self = shared_from_this();
    std::vector<Notification> notifications;
    {
      const MutexLock lock(mutex_);
      if (count_ == 0) abortOnFailedAssertion("a group is left as often as it is entered");
      if (--count_ > 0) return;
      notifications = std::exchange(notifications_, {});
      emptied_.fetch_add(1, std::memory_order_release);
    }
    futexWake(emptied_, INT_MAX);
    for (auto& [queue, block] : notifications) queue->async(std::move(block));
  }

  void notify(const QueueRef& queue, Block block) override {
    {
      const MutexLock lock(mutex_);
      if (count_ > 0) {
        notifications_.emplace_back(queue, std::move(block));
        return;
      }
    }
    queue->async(std::move(block));
  }

  long wait(DispatchTime deadline) override {
    std::uint32_t before = 0;
    {
      const MutexLock lock(mutex_);
      if (count_ == 0) return 0;
      before = emptied_.load(std::memory_order_relaxed);
    }
    if (deadline == DispatchTime::now) return 1;
    const BlockingRegion region;
    while (emptied_.load(std::memory_order_acquire) == before) {
      if (!Wanted::wait(emptied_, before, deadline)) {
        return emptied_.load(std::memory_order_acquire) == before ? 1 : 0;
      }
    }
    return 0;
  }

 private:
  using Notification = std::pair<QueueRef, Block>;

  Mutex mutex_;
  std::uint64_t count_ GUARDED_BY(mutex_) = 0;
  std::vector<Notification> notifications_ GUARDED_BY(mutex_);
  std::atomic<std::uint32_t> emptied_{0};  // how often
};

}  // namespace

GroupRef Group::make() {
  return makeCounted<CountingGroup>();
}

}  // namespace skelda::platform
