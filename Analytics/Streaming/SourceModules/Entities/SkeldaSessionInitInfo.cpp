#include "Analytics/Streaming/SourceModules/Entities/SkeldaSessionInitInfo.h"

#include <fmt/format.h>

#include <array>
#include <utility>

#include "Platform/Base/Counted.h"

SkeldaSessionInitInfo::SkeldaSessionInitInfo(std::uint16_t agentPlatform,
                                             std::uint16_t agentVersion,
                                             std::optional<std::string> apiKey,
                                             std::uint8_t agentReportType,
                                             bool includeBackgroundSessionsInMetrics)
    : agentPlatform_(agentPlatform),
      agentVersion_(agentVersion),
      apiKey_(std::move(apiKey)),
      agentReportType_(agentReportType),
      includeBackgroundSessionsInMetrics_(includeBackgroundSessionsInMetrics) {}

std::shared_ptr<SkeldaSessionInitInfo> SkeldaSessionInitInfo::sessionInitInfoWithAgentPlatform(
    std::uint16_t agentPlatform, std::uint16_t agentVersion, std::optional<std::string> apiKey,
    std::uint8_t agentReportType, bool includeBackgroundSessionsInMetrics) {
  return platform::makeCounted<SkeldaSessionInitInfo>(agentPlatform, agentVersion,
                                                      std::move(apiKey), agentReportType,
                                                      includeBackgroundSessionsInMetrics);
}

std::span<const SkeldaRecordField> SkeldaSessionInitInfo::recordFields() noexcept {
  using Self = SkeldaSessionInitInfo;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::apiKey_>("sk.apikey").required(),
      SkeldaRecordField::of<&Self::agentPlatform_>("sk.agent.platform").required(),
      SkeldaRecordField::of<&Self::agentReportType_>("sk.agent.report.key").required(),
      SkeldaRecordField::of<&Self::agentVersion_>("sk.agent.version").required(),
      SkeldaRecordField::of<&Self::includeBackgroundSessionsInMetrics_>(
          "sk.background.session.metrics"),
      SkeldaRecordField::of<&Self::playServiceAvailability>("sk.play.service.availability"),
  };
  return kFields;
}

std::string SkeldaSessionInitInfo::invalidModelText() const {
  // The address alone: the description of an object that is not valid would end up here again.
  return fmt::format("invalid session init object <{}: {}>", kClassName,
                     static_cast<const void*>(this));
}

platform::Value SkeldaSessionInitInfo::playServiceAvailability() const {
  // The far end expects the key from every platform; on a watch there is nothing to say.
  return -1;
}
