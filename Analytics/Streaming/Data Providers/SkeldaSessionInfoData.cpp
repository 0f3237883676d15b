#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoData.h"

#include <utility>

#include "Platform/Base/Counted.h"
#include "Platform/Platform.h"

std::shared_ptr<SkeldaSessionInfoData> SkeldaSessionInfoData::dataWithApiKey(
    std::string apiKey, std::uint16_t agentPlatform, std::uint16_t agentVersion,
    std::uint8_t agentReportType, bool includeBackgroundSessionsInMetrics) {
  auto data = platform::makeCounted<SkeldaSessionInfoData>();
  data->apiKey_ = std::move(apiKey);
  data->agentPlatform_ = agentPlatform;
  data->agentVersion_ = agentVersion;
  data->agentReportType_ = agentReportType;
  data->includeBackgroundSessionsInMetrics_ = includeBackgroundSessionsInMetrics;
  return data;
}
