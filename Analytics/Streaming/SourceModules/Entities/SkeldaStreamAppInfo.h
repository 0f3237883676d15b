#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The host application. Valid with a version and a bundle identifier.
class SkeldaStreamAppInfo final : public SkeldaStreamRecordOf<SkeldaStreamAppInfo> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamAppInfo";

  SkeldaStreamAppInfo() = default;
  SkeldaStreamAppInfo(std::optional<std::string> version, std::optional<std::string> buildNumber,
                      std::optional<std::string> versionOverride,
                      std::optional<std::string> bundleID, std::uint8_t appBuildEnv);
  static std::shared_ptr<SkeldaStreamAppInfo> appInfoWithVersion(
      std::optional<std::string> version, std::optional<std::string> buildNumber,
      std::optional<std::string> versionOverride, std::optional<std::string> bundleID,
      std::uint8_t appBuildEnv);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  const std::optional<std::string>& version() const noexcept { return version_; }
  const std::optional<std::string>& bundledID() const noexcept { return bundledID_; }
  /// The version that the host set, if it set one.
  const std::optional<std::string>& versionOverride() const noexcept { return versionOverride_; }
  const std::optional<std::string>& buildNumber() const noexcept { return buildNumber_; }
  std::uint8_t appBuildEnv() const noexcept { return appBuildEnv_; }

 private:
  std::optional<std::string> version_;
  std::optional<std::string> bundledID_;
  std::optional<std::string> versionOverride_;
  std::optional<std::string> buildNumber_;
  std::uint8_t appBuildEnv_ = 0;
};
