#pragma once

#include <memory>

#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"
#include "Tests/Support/Recorded.h"

namespace skelda::testing {

/// Counts what it is told. Any thread.
class RecordingObserver : public virtual ISkeldaDataProviderObserver {
 public:
  void dataProviderDidUpdate(std::shared_ptr<SkeldaDataProvider> provider) override {
    told_.add(provider.get());
  }
  /// How often it was told, once that is `count`.
  int updates(std::size_t count = 0) { return static_cast<int>(told_.wait(count).size()); }

 private:
  Recorded<const SkeldaDataProvider*> told_;
};

/// Waits until what was posted to the provider has run, and what that posted in turn.
inline void settle(SkeldaDataProvider& provider) {
  for (int hops = 0; hops < 3; ++hops) provider.syncBlock([] {});
}

}  // namespace skelda::testing
