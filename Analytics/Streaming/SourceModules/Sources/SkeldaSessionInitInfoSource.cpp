#include "Analytics/Streaming/SourceModules/Sources/SkeldaSessionInitInfoSource.h"

#include "Analytics/Streaming/Data Providers/SkeldaSessionInfo.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaSessionInitInfo.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Skelda_Watch/SkeldaVersion.h"

std::string SkeldaSessionInitInfoSource::getSkeldaAgentVersionNumber() {
  unsigned version = 0;
  syncBlock([&] {
    if (sessionInitInfo_) version = sessionInitInfo_->agentVersion();
  });
  return fmt::format("{}", version);
}

bool SkeldaSessionInitInfoSource::includeBackgroundSessionsInMetrics() {
  bool include = false;
  syncBlock([&] {
    include = sessionInitInfo_ && sessionInitInfo_->includeBackgroundSessionsInMetrics();
  });
  return include;
}

std::string SkeldaSessionInitInfoSource::getSkeldaVersion() {
  return fmt::format("{:.1f}", Skelda_WatchVersionNumber);
}

std::string SkeldaSessionInitInfoSource::getSkeldaAgentVersionWithBuild() {
  return SkeldaSessionInfo::getAgentVersion();
}

void SkeldaSessionInitInfoSource::onqueue_reportFactsOf(SkeldaSessionInfoDataProvider& provider) {
  SKELDA_ON_QUEUE();
  // Once per process: later changes of the facts are not reported.
  if (sessionInitInfo_) return;
  const auto facts = provider.sessionInfoData();
  if (!facts) return;
  sessionInitInfo_ = SkeldaSessionInitInfo::sessionInitInfoWithAgentPlatform(
      facts->agentPlatform(), facts->agentVersion(), facts->apiKey(), facts->agentReportType(),
      facts->includeBackgroundSessionsInMetrics());
  onqueue_streamSessionInfo();
}

void SkeldaSessionInitInfoSource::onqueue_streamSessionInfo() {
  SKELDA_ON_QUEUE();
  SKELDA_LOG(2, "{}: session init info: {}",
             "-[SkeldaSessionInitInfoSource onqueue_streamSessionInfo]",
             skelda::shownDescription(*sessionInitInfo_));
  onqueue_streamMessage(sessionInitInfo_->copy());
}
