#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"

namespace skelda::testing {

/// Counts what it is told. Any thread.
class RecordingObserver : public virtual ISkeldaDataProviderObserver {
 public:
  void dataProviderDidUpdate(std::shared_ptr<SkeldaDataProvider>) override {
    std::lock_guard lock(mutex_);
    ++updates_;
    changed_.notify_all();
  }
  /// How often it was told, once that is `count` or five seconds have passed.
  int updates(int count = 0) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [&] { return updates_ >= count; });
    return updates_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int updates_ = 0;
};

/// Waits until what was posted to the provider has run, and what that posted in turn.
inline void settle(SkeldaDataProvider& provider) {
  for (int hops = 0; hops < 3; ++hops) provider.syncBlock([] {});
}

}  // namespace skelda::testing
