#pragma once

#include <atomic>
#include <memory>

#include "Platform/Foundation/Object.h"
#include "Platform/Platform.h"

/// Says whether uploads are under way that should keep the process running. A Linux process is not
/// suspended behind its back, so there is nobody to ask for time: the tracker keeps the state,
/// which a platform that does suspend would act upon by overriding the two calls. Any thread.
class SkeldaBackgroundTaskTracker : public platform::Object {
 public:
  static const std::shared_ptr<SkeldaBackgroundTaskTracker>& defaultTracker();

  std::string_view className() const noexcept override { return "SkeldaBackgroundTaskTracker"; }
  /// Does nothing while tracking already.
  virtual void startBackgroundTaskTrackingIfNeeded() { tracking_ = true; }
  virtual void stopBackgroundTasksTracking() { tracking_ = false; }
  bool isTracking() const noexcept { return tracking_; }

 private:
  std::atomic<bool> tracking_ = false;
};
