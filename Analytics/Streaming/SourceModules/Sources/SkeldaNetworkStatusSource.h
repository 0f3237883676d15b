#pragma once

#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

/// Reports the network status.
class ISkeldaNetworkStatusSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaNetworkStatusSource";
};

class SkeldaNetworkStatusSource
    : public SkeldaProviderFedSource<SkeldaNetworkStatusSource, ISkeldaNetworkStatusSource,
                                     SkeldaNetworkReachabilityDataProvider> {
 public:
  static constexpr std::string_view kClassName = "SkeldaNetworkStatusSource";

 private:
  friend SkeldaSource;
  SkeldaNetworkStatusSource() = default;
  void onqueue_reportFactsOf(SkeldaNetworkReachabilityDataProvider& provider) override;
};
