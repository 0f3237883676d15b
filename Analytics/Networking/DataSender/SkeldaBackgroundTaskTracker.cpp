#include "Analytics/Networking/DataSender/SkeldaBackgroundTaskTracker.h"

#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"

const std::shared_ptr<SkeldaBackgroundTaskTracker>& SkeldaBackgroundTaskTracker::defaultTracker() {
  static platform::NeverDestroyed<std::shared_ptr<SkeldaBackgroundTaskTracker>> tracker(
      platform::makeCounted<SkeldaBackgroundTaskTracker>());
  return *tracker;
}
