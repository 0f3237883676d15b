#pragma once

#include "Analytics/Streaming/Data Providers/SkeldaAppStateDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

/// Reports the state of the watch extension.
class ISkeldaAppStateSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaAppStateSource";
};

class SkeldaAppStateSource
    : public SkeldaProviderFedSource<SkeldaAppStateSource, ISkeldaAppStateSource,
                                     SkeldaAppStateDataProvider> {
 public:
  static constexpr std::string_view kClassName = "SkeldaAppStateSource";

 private:
  friend SkeldaSource;
  SkeldaAppStateSource() = default;
  void onqueue_reportFactsOf(SkeldaAppStateDataProvider& provider) override;
};
