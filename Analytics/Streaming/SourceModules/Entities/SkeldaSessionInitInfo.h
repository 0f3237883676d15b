#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The facts of the agent's start. Valid with an API key.
class SkeldaSessionInitInfo final : public SkeldaStreamRecordOf<SkeldaSessionInitInfo> {
 public:
  static constexpr std::string_view kClassName = "SkeldaSessionInitInfo";
  static constexpr bool kIsCopied = true;

  SkeldaSessionInitInfo() = default;
  SkeldaSessionInitInfo(std::uint16_t agentPlatform, std::uint16_t agentVersion,
                        std::optional<std::string> apiKey, std::uint8_t agentReportType,
                        bool includeBackgroundSessionsInMetrics);
  static std::shared_ptr<SkeldaSessionInitInfo> sessionInitInfoWithAgentPlatform(
      std::uint16_t agentPlatform, std::uint16_t agentVersion, std::optional<std::string> apiKey,
      std::uint8_t agentReportType, bool includeBackgroundSessionsInMetrics);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  std::uint16_t agentPlatform() const noexcept { return agentPlatform_; }
  std::uint16_t agentVersion() const noexcept { return agentVersion_; }
  const std::optional<std::string>& apiKey() const noexcept { return apiKey_; }
  std::uint8_t agentReportType() const noexcept { return agentReportType_; }
  bool includeBackgroundSessionsInMetrics() const noexcept {
    return includeBackgroundSessionsInMetrics_;
  }

 protected:
  std::string invalidModelText() const override;
  std::string_view inconsistentDictText() const noexcept override {
    return "inconsistent json object";
  }

 private:
  platform::Value playServiceAvailability() const;

  std::uint16_t agentPlatform_ = 0;
  std::uint16_t agentVersion_ = 0;
  std::optional<std::string> apiKey_;
  std::uint8_t agentReportType_ = 0;
  bool includeBackgroundSessionsInMetrics_ = false;
};
