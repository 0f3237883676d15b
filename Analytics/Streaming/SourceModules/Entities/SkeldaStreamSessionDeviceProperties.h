#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionTrackedProperties.h"

class SkeldaSessionDevicePropertiesData;

/// The resource figures of a session: totals, a snapshot of its start, and one of its end when it
/// has ended. Valid with a start snapshot.
class SkeldaStreamSessionDeviceProperties final
    : public SkeldaStreamRecordOf<SkeldaStreamSessionDeviceProperties> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamSessionDeviceProperties";
  using Snapshot = std::optional<SkeldaStreamSessionTrackedProperties>;

  SkeldaStreamSessionDeviceProperties() = default;
  static std::shared_ptr<SkeldaStreamSessionDeviceProperties> sessionDeviceProperties();
  /// The record of a session that starts with that snapshot of the device.
  static std::shared_ptr<SkeldaStreamSessionDeviceProperties> dataWithSessionDevicePropertiesData(
      const SkeldaSessionDevicePropertiesData& start);
  /// Takes over the totals, and the figures as those of the session's end.
  void updateWithData(const SkeldaSessionDevicePropertiesData& end);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  bool isValidModel() const override { return startProperties_.has_value(); }

  // Bytes.
  std::uint64_t totalDiskSize() const noexcept { return totalDiskSize_; }
  std::uint64_t availableDiskSize() const noexcept { return availableDiskSize_; }
  std::uint64_t usedDiskSize() const noexcept { return usedDiskSize_; }
  std::uint64_t totalMemory() const noexcept { return totalMemory_; }
  /// Seconds since 1970.
  std::int64_t lastBootTime() const noexcept { return lastBootTime_; }
  const std::optional<std::string>& carrierName() const noexcept { return carrierName_; }
  const std::optional<std::string>& carrierMNC() const noexcept { return carrierMNC_; }
  const std::optional<std::string>& carrierMCC() const noexcept { return carrierMCC_; }
  const Snapshot& startProperties() const noexcept { return startProperties_; }
  const Snapshot& endProperties() const noexcept { return endProperties_; }

  // -- Fixed by the system, and not called by the agent itself

  void setTotalDiskSize(std::uint64_t bytes) noexcept { totalDiskSize_ = bytes; }
  void setAvailableDiskSize(std::uint64_t bytes) noexcept { availableDiskSize_ = bytes; }
  void setUsedDiskSize(std::uint64_t bytes) noexcept { usedDiskSize_ = bytes; }
  void setTotalMemory(std::uint64_t bytes) noexcept { totalMemory_ = bytes; }
  void setLastBootTime(std::int64_t seconds) noexcept { lastBootTime_ = seconds; }
  void setCarrierName(std::optional<std::string> name) { carrierName_ = std::move(name); }
  void setCarrierMNC(std::optional<std::string> code) { carrierMNC_ = std::move(code); }
  void setCarrierMCC(std::optional<std::string> code) { carrierMCC_ = std::move(code); }
  void setStartProperties(Snapshot snapshot) noexcept { startProperties_ = snapshot; }
  void setEndProperties(Snapshot snapshot) noexcept { endProperties_ = snapshot; }

 protected:
  std::string invalidModelText() const override { return "invalid model object"; }
  bool didRead(const platform::Dictionary& dictionary) override;

 private:
  void takeTotals(const SkeldaSessionDevicePropertiesData& data);
  static std::span<const SkeldaRecordField> totalFields() noexcept;
  platform::Value sessionProperty() const;
  bool writeJSON(platform::JSONWriter& writer) const override;
  /// Calls `take` with the name of each property that there is, and its value.
  template <class Take>
  void forEachProperty(Take take) const;

  std::uint64_t totalDiskSize_ = 0;
  std::uint64_t availableDiskSize_ = 0;
  std::int64_t lastBootTime_ = 0;
  std::uint64_t totalMemory_ = 0;
  std::uint64_t usedDiskSize_ = 0;
  std::optional<std::string> carrierName_;
  std::optional<std::string> carrierMNC_;
  std::optional<std::string> carrierMCC_;
  Snapshot startProperties_;
  Snapshot endProperties_;
};
