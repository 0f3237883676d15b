#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "Analytics/Streaming/Data Providers/ISkeldaReachability.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Platform.h"
#include "Platform/Reachability/NetworkMonitor.h"

/// Tells the agent whether the machine is connected. Where a host asked for it, by
/// SkeldaReachabilityLink(), the reachability provider finds the class by name when it starts.
///
/// Each change sets the provider's values, tells its observers and posts
/// kSkeldaNetworkStatusChangedNotification, upon which waiting uploads go out.
class SkeldaReachability : public platform::Object, public ISkeldaReachability {
 public:
  /// The network status that the agent reports.
  enum NetworkStatus : std::int32_t {
    kNotReachable = 0,
    kReachableOverLocalNetwork = 1,
    kReachableOverMobileNetwork = 2,
  };

  /// Makes the class known.
  static void registerClass();
  SkeldaReachability();
  ~SkeldaReachability();
  std::string_view className() const noexcept override { return kClassName; }
  void startup() override;

 private:
  static void linkDidChange(platform::NetworkLink link);

  std::shared_ptr<platform::NetworkMonitor> monitor_;
};
