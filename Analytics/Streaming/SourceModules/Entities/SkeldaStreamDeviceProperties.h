#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The device. Valid with its four texts; any screen size will do, 0 included.
class SkeldaStreamDeviceProperties final
    : public SkeldaStreamRecordOf<SkeldaStreamDeviceProperties> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamDeviceProperties";

  SkeldaStreamDeviceProperties() = default;
  SkeldaStreamDeviceProperties(std::optional<std::string> deviceModel,
                               std::optional<std::string> deviceOSVersion,
                               std::optional<std::string> deviceArch,
                               std::optional<std::string> appVersion, std::uint32_t screenWidth,
                               std::uint32_t screenHeight);
  static std::shared_ptr<SkeldaStreamDeviceProperties> devicePropertiesWithDeviceModel(
      std::optional<std::string> deviceModel, std::optional<std::string> deviceOSVersion,
      std::optional<std::string> deviceArch, std::optional<std::string> appVersion,
      std::uint32_t screenWidth, std::uint32_t screenHeight);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  bool isValidModel() const override;

  const std::optional<std::string>& deviceModel() const noexcept { return deviceModel_; }
  const std::optional<std::string>& deviceOSVersion() const noexcept { return deviceOSVersion_; }
  const std::optional<std::string>& deviceArch() const noexcept { return deviceArch_; }
  const std::optional<std::string>& appVersionFromBundle() const noexcept {
    return appVersionFromBundle_;
  }
  std::uint32_t screenWidth() const noexcept { return screenWidth_; }
  std::uint32_t screenHeight() const noexcept { return screenHeight_; }

 protected:
  bool didRead(const platform::Dictionary& dictionary) override;

 private:
  static std::span<const SkeldaRecordField> memberFields() noexcept;
  platform::Value deviceProperties() const;

  std::optional<std::string> deviceModel_;
  std::optional<std::string> deviceOSVersion_;
  std::optional<std::string> deviceArch_;
  std::optional<std::string> appVersionFromBundle_;
  std::uint32_t screenWidth_ = 0;
  std::uint32_t screenHeight_ = 0;
};
