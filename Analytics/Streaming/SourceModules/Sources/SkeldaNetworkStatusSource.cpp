#include "Analytics/Streaming/SourceModules/Sources/SkeldaNetworkStatusSource.h"

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamNetworkStatus.h"

void SkeldaNetworkStatusSource::onqueue_reportFactsOf(
    SkeldaNetworkReachabilityDataProvider& provider) {
  networkStatus_ = provider.networkStatus();
  onqueue_streamMessage(SkeldaStreamNetworkStatus::networkStatusWithFlag(networkStatus_));
}
