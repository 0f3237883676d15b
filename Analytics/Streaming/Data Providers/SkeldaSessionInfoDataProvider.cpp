#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"

#include <utility>

SkeldaSessionInfoDataProvider::SkeldaSessionInfoDataProvider()
    : SkeldaDataProvider(std::string(kClassName)) {}

std::shared_ptr<SkeldaSessionInfoDataProvider> SkeldaSessionInfoDataProvider::getInstance() {
  return made(new SkeldaSessionInfoDataProvider());
}

void SkeldaSessionInfoDataProvider::startUpWithApiKey(std::string apiKey) {
  post<&SkeldaSessionInfoDataProvider::onqueue_startUpWithApiKey>(std::move(apiKey));
}

bool SkeldaSessionInfoDataProvider::hasStartSessionBeenCalled() {
  bool called = false;
  syncBlock([&] { called = apiKey_.has_value(); });
  return called;
}

void SkeldaSessionInfoDataProvider::setIncludeBackgroundSessionsInMetrics(bool include) {
  post<&SkeldaSessionInfoDataProvider::onqueue_setIncludeBackgroundSessionsInMetrics>(include);
}

SkeldaSessionInfoDataProvider::DataRef SkeldaSessionInfoDataProvider::sessionInfoData() {
  DataRef data;
  syncBlock([&] { data = sessionInfoData_; });
  return data;
}

void SkeldaSessionInfoDataProvider::onqueue_startUpWithApiKey(std::string apiKey) {
  SKELDA_ON_QUEUE();
  apiKey_ = std::move(apiKey);
  onqueue_updateData();
}

void SkeldaSessionInfoDataProvider::onqueue_setIncludeBackgroundSessionsInMetrics(bool include) {
  SKELDA_ON_QUEUE();
  includeBackgroundSessionInMetrics_ = include;
  // Before start-up the flag waits for the facts that will carry it.
  if (apiKey_) onqueue_updateData();
}

void SkeldaSessionInfoDataProvider::onqueue_updateData() {
  SKELDA_ON_QUEUE();
  sessionInfoData_ =
      SkeldaSessionInfoData::dataWithApiKey(*apiKey_, kAgentPlatform, kAgentVersion,
                                            kAgentReportType, includeBackgroundSessionInMetrics_);
  notifyObservers();
}
