#pragma once

#include <cstdint>
#include <memory>

#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"
#include "Platform/Foundation/Error.h"
#include "Skelda_Watch/SkeldaConstants.h"

/// The agent's one source of truth about the network. Every operation is safe from any thread:
/// writes are posted to the provider's queue, reads wait for it, so that a read sees the writes
/// that its thread made before.
///
/// Without a monitor the device counts as not connected. A program that links one (the class named
/// "SkeldaReachability") gets it made and started with this provider; the monitor then drives the
/// setters below, calls notifyObservers(), and posts kSkeldaNetworkStatusChangedNotification.
class SkeldaNetworkReachabilityDataProvider : public SkeldaDataProvider {
 public:
  static constexpr std::string_view kClassName = "SkeldaNetworkReachabilityDataProvider";

  /// The process-wide instance.
  static std::shared_ptr<SkeldaNetworkReachabilityDataProvider> sharedInstance();
  static std::shared_ptr<SkeldaNetworkReachabilityDataProvider> getInstance();
  std::string_view className() const noexcept override { return kClassName; }

  /// Tells the observers once, after starting the monitor where there is one.
  void startup() override;

  /// The domain of errors that mean "the network is likely not reachable".
  static const platform::ErrorDomain& networkErrorDomain();
  void setLastNetworkOperationError(platform::ErrorRef error);
  bool isNetworkReachable();
  std::int32_t networkStatus();

  // For the monitor.
  void setConnectedToNetwork(bool connected);
  void setInternalNetworkStatus(std::int32_t status);
  void setReachabilitySetup(bool setup);

  // -- Fixed by the system, and not called by the agent itself
  platform::ErrorRef lastNetworkOperationError();
  void setNetworkLikelyNotReachable();
  bool isNetworkLikelyNotReachable();
  bool reachabilitySetup();
  void setReachability(platform::ObjectRef monitor);
  platform::ObjectRef reachability();

 protected:
  SkeldaNetworkReachabilityDataProvider();
  void onqueue_startup();
  void onqueue_startMonitor();

 private:
  platform::ErrorRef lastNetworkOperationError_;
  bool connectedToNetwork_ = false;
  bool reachabilitySetup_ = false;
  std::int32_t internalNetworkStatus_ = 0;
  platform::ObjectRef reachability_;
};
