#pragma once

#include <memory>

#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaSessionInitInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

class SkeldaSessionInitInfo;

/// Sends one session init info, made of the first facts that arrive, and keeps it.
class SkeldaSessionInitInfoSource
    : public SkeldaProviderFedSource<SkeldaSessionInitInfoSource, ISkeldaSessionInitInfoSource,
                                     SkeldaSessionInfoDataProvider> {
 public:
  static constexpr std::string_view kClassName = "SkeldaSessionInitInfoSource";

  std::string getSkeldaAgentVersionNumber() override;
  bool includeBackgroundSessionsInMetrics() override;
  std::string getSkeldaVersion() override;
  std::string getSkeldaAgentVersionWithBuild() override;

 private:
  friend SkeldaSource;
  SkeldaSessionInitInfoSource() = default;
  void onqueue_reportFactsOf(SkeldaSessionInfoDataProvider& provider) override;
  void onqueue_streamSessionInfo();

  std::shared_ptr<SkeldaSessionInitInfo> sessionInitInfo_;
};
