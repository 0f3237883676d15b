#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// How the network is reached. Of its fields only the flag is written.
class SkeldaStreamNetworkStatus final : public SkeldaStreamRecordOf<SkeldaStreamNetworkStatus> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamNetworkStatus";

  SkeldaStreamNetworkStatus() = default;
  explicit SkeldaStreamNetworkStatus(std::int32_t flag);
  SkeldaStreamNetworkStatus(std::int32_t flag, std::int64_t signalStrength,
                            std::optional<std::string> connectionType,
                            std::optional<std::string> carrierName);
  static std::shared_ptr<SkeldaStreamNetworkStatus> networkStatusWithFlag(std::int32_t flag);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  std::int32_t networkStatusFlag() const noexcept { return networkStatusFlag_; }
  std::int64_t signalStrength() const noexcept { return signalStrength_; }
  const std::optional<std::string>& connectionType() const noexcept { return connectionType_; }
  const std::optional<std::string>& carrierName() const noexcept { return carrierName_; }

 private:
  std::int32_t networkStatusFlag_ = 0;
  std::int64_t signalStrength_ = 0;
  std::optional<std::string> connectionType_;
  std::optional<std::string> carrierName_;
};
