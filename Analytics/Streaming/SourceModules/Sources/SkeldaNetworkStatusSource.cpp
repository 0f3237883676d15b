#include "Analytics/Streaming/SourceModules/Sources/SkeldaNetworkStatusSource.h"

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamNetworkStatus.h"

void SkeldaNetworkStatusSource::onqueue_reportFactsOf(
    SkeldaNetworkReachabilityDataProvider& provider) {
  SKELDA_ON_QUEUE();
  onqueue_streamMessage(SkeldaStreamNetworkStatus::networkStatusWithFlag(provider.networkStatus()));
}
