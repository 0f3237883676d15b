#pragma once

#include <cstdint>
#include <memory>
#include <string>

/// The facts that identify the agent and its host to the ingestion service. Once handed to
/// observers it is replaced, never changed.
class SkeldaSessionInfoData {
 public:
  static std::shared_ptr<SkeldaSessionInfoData> dataWithApiKey(
      std::string apiKey, std::uint16_t agentPlatform, std::uint16_t agentVersion,
      std::uint8_t agentReportType, bool includeBackgroundSessionsInMetrics);

  const std::string& apiKey() const noexcept { return apiKey_; }
  std::uint16_t agentPlatform() const noexcept { return agentPlatform_; }
  std::uint16_t agentVersion() const noexcept { return agentVersion_; }
  std::uint8_t agentReportType() const noexcept { return agentReportType_; }
  bool includeBackgroundSessionsInMetrics() const noexcept {
    return includeBackgroundSessionsInMetrics_;
  }
  void setIncludeBackgroundSessionsInMetrics(bool include) noexcept {
    includeBackgroundSessionsInMetrics_ = include;
  }

 private:
  std::string apiKey_;
  std::uint16_t agentPlatform_ = 0;
  std::uint16_t agentVersion_ = 0;
  std::uint8_t agentReportType_ = 0;
  bool includeBackgroundSessionsInMetrics_ = false;
};
