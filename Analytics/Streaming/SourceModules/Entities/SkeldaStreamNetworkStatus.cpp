#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamNetworkStatus.h"

#include <array>
#include <utility>

#include "Platform/Base/Counted.h"

SkeldaStreamNetworkStatus::SkeldaStreamNetworkStatus(std::int32_t flag)
    : networkStatusFlag_(flag) {}

SkeldaStreamNetworkStatus::SkeldaStreamNetworkStatus(std::int32_t flag, std::int64_t signalStrength,
                                                     std::optional<std::string> connectionType,
                                                     std::optional<std::string> carrierName)
    : networkStatusFlag_(flag),
      signalStrength_(signalStrength),
      connectionType_(std::move(connectionType)),
      carrierName_(std::move(carrierName)) {}

std::shared_ptr<SkeldaStreamNetworkStatus> SkeldaStreamNetworkStatus::networkStatusWithFlag(
    std::int32_t flag) {
  return platform::makeCounted<SkeldaStreamNetworkStatus>(flag);
}

std::span<const SkeldaRecordField> SkeldaStreamNetworkStatus::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamNetworkStatus::networkStatusFlag_>("sk.network.status")
          .required(),
  };
  return kFields;
}
