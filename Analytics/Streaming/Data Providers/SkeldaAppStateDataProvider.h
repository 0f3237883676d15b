#pragma once

#include <cstdint>
#include <memory>

#include "Analytics/Streaming/Data Providers/SkeldaAppStateData.h"
#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"

/// The state of the watch extension, read once, on the main queue, at start-up.
class SkeldaAppStateDataProvider : public SkeldaDataProvider {
 public:
  static constexpr std::string_view kClassName = "SkeldaAppStateDataProvider";
  using DataRef = std::shared_ptr<const SkeldaAppStateData>;

  /// A new provider each time; the manager's registry keeps the one in use.
  static std::shared_ptr<SkeldaAppStateDataProvider> getInstance();
  std::string_view className() const noexcept override { return kClassName; }

  void startup() override;
  /// The observers are told when the state differs from the last one. Any thread, returns at once.
  void sendWatchState(std::int32_t state);
  /// The last state, or null. Any thread; waits for the provider's queue.
  DataRef appStateData();

  // -- Fixed by the system, and not called by the agent itself
  // Where a platform with life-cycle notices would say what happened. This one has none.
  void mainQueue_subscribeNotifications() {}
  void applicationWillResignActive() {}
  void applicationWillEnterForeground() {}
  void applicationDidBecomeActive() {}
  void applicationDidEnterBackground() {}

 protected:
  SkeldaAppStateDataProvider();
  bool canSendData() const override { return appStateData_ != nullptr; }
  void onqueue_start();
  void onqueue_sendWatchState(std::int32_t state);

 private:
  DataRef appStateData_;
};
