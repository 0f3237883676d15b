#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"

namespace skelda::testing {

/// Counts what it is told and remembers who told it. Any thread.
class RecordingObserver : public virtual ISkeldaDataProviderObserver {
 public:
  void dataProviderDidUpdate(std::shared_ptr<SkeldaDataProvider> provider) override {
    std::lock_guard lock(mutex_);
    providers_.push_back(std::move(provider));
    changed_.notify_all();
  }
  /// How often it was told, once that is `count` or five seconds have passed.
  std::size_t updates(std::size_t count = 0) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [&] { return providers_.size() >= count; });
    return providers_.size();
  }
  std::shared_ptr<SkeldaDataProvider> last() {
    std::lock_guard lock(mutex_);
    return providers_.empty() ? nullptr : providers_.back();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::shared_ptr<SkeldaDataProvider>> providers_;
};

/// Waits until what was posted to the provider has run, and what that posted in turn.
inline void settle(SkeldaDataProvider& provider) {
  for (int hops = 0; hops < 3; ++hops) provider.syncBlock([] {});
}

}  // namespace skelda::testing
