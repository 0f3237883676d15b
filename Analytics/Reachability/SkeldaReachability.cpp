#include "Analytics/Reachability/SkeldaReachability.h"

#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Base/Counted.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Skelda_Watch/SkeldaConstants.h"

namespace {

SkeldaReachability::NetworkStatus statusFor(platform::NetworkLink link) noexcept {
  switch (link) {
    case platform::NetworkLink::local:
      return SkeldaReachability::kReachableOverLocalNetwork;
    case platform::NetworkLink::mobile:
      return SkeldaReachability::kReachableOverMobileNetwork;
    case platform::NetworkLink::none:
      break;
  }
  return SkeldaReachability::kNotReachable;
}

}  // namespace

void SkeldaReachability::registerClass() {
  platform::ClassRegistry::shared().registerClass(
      {std::string(kClassName), {}, {std::string(ISkeldaReachability::kProtocolName)}, [] {
         return platform::makeCounted<SkeldaReachability>();
       }});
}

SkeldaReachability::SkeldaReachability()
    : monitor_(platform::NetworkMonitor::make(
          platform::Queue::serial(kClassName),
          [](platform::NetworkLink link) { skelda::guarded([link] { linkDidChange(link); })(); })) {
}

SkeldaReachability::~SkeldaReachability() {
  monitor_->stop();
}

void SkeldaReachability::startup() {
  monitor_->start();
}

void SkeldaReachability::linkDidChange(platform::NetworkLink link) {
  const NetworkStatus status = statusFor(link);
  SKELDA_LOG(2, "SkeldaReachability: network status is {}", static_cast<std::int32_t>(status));
  const auto provider = SkeldaNetworkReachabilityDataProvider::sharedInstance();
  provider->setReachabilitySetup(true);
  provider->setConnectedToNetwork(status != kNotReachable);
  provider->setInternalNetworkStatus(status);
  provider->notifyObservers();
  platform::NotificationCenter::defaultCenter().post(kSkeldaNetworkStatusChangedNotification);
}
