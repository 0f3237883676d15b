#include "Analytics/Networking/DataSender/SkeldaBackgroundTaskTracker.h"

const std::shared_ptr<SkeldaBackgroundTaskTracker>& SkeldaBackgroundTaskTracker::defaultTracker() {
  static const auto& tracker = *new std::shared_ptr<SkeldaBackgroundTaskTracker>(
      std::make_shared<SkeldaBackgroundTaskTracker>());
  return tracker;
}
