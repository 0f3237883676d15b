#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoData.h"
#include "Analytics/Utils/SkeldaAgentVersion.h"

/// Holds the API key and what the agent says of itself. Has facts from startUpWithApiKey() on.
class SkeldaSessionInfoDataProvider : public SkeldaDataProvider {
 public:
  static constexpr std::string_view kClassName = "SkeldaSessionInfoDataProvider";
  static constexpr std::uint16_t kAgentPlatform = 2;
  static constexpr std::uint16_t kAgentVersion = kSkeldaAgentVersion;
  static constexpr std::uint8_t kAgentReportType = 2;
  using DataRef = std::shared_ptr<const SkeldaSessionInfoData>;

  /// A new provider each time; the manager's registry keeps the one in use.
  static std::shared_ptr<SkeldaSessionInfoDataProvider> getInstance();
  std::string_view className() const noexcept override { return kClassName; }

  /// Makes the facts and tells the observers. Any thread, returns at once.
  void startUpWithApiKey(std::string apiKey);
  /// The facts, or null before start-up. Any thread; waits for the provider's queue.
  DataRef sessionInfoData();

  // -- Fixed by the system, and not called by the agent itself
  /// Any thread; waits for the provider's queue.
  bool hasStartSessionBeenCalled();
  /// After start-up this makes new facts and tells the observers. Any thread, returns at once.
  void setIncludeBackgroundSessionsInMetrics(bool include);

 protected:
  SkeldaSessionInfoDataProvider();
  bool canSendData() const override { return sessionInfoData_ != nullptr; }
  void onqueue_startUpWithApiKey(std::string apiKey);
  void onqueue_setIncludeBackgroundSessionsInMetrics(bool include);
  void onqueue_updateData();

 private:
  DataRef sessionInfoData_;
  std::optional<std::string> apiKey_;
  bool includeBackgroundSessionInMetrics_ = false;
};
