#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppInfo.h"

#include <array>
#include <utility>

#include "Platform/Base/Counted.h"

SkeldaStreamAppInfo::SkeldaStreamAppInfo(std::optional<std::string> version,
                                         std::optional<std::string> buildNumber,
                                         std::optional<std::string> versionOverride,
                                         std::optional<std::string> bundleID,
                                         std::uint8_t appBuildEnv)
    : version_(std::move(version)),
      bundledID_(std::move(bundleID)),
      versionOverride_(std::move(versionOverride)),
      buildNumber_(std::move(buildNumber)),
      appBuildEnv_(appBuildEnv) {}

std::shared_ptr<SkeldaStreamAppInfo> SkeldaStreamAppInfo::appInfoWithVersion(
    std::optional<std::string> version, std::optional<std::string> buildNumber,
    std::optional<std::string> versionOverride, std::optional<std::string> bundleID,
    std::uint8_t appBuildEnv) {
  return platform::makeCounted<SkeldaStreamAppInfo>(std::move(version), std::move(buildNumber),
                                                    std::move(versionOverride), std::move(bundleID),
                                                    appBuildEnv);
}

std::span<const SkeldaRecordField> SkeldaStreamAppInfo::recordFields() noexcept {
  using Self = SkeldaStreamAppInfo;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::version_>("sk.app.version").required(),
      SkeldaRecordField::of<&Self::bundledID_>("sk.bundle.id").required(),
      SkeldaRecordField::of<&Self::versionOverride_>("sk.app.version.override"),
      SkeldaRecordField::of<&Self::buildNumber_>("sk.app.version.code"),
      SkeldaRecordField::of<&Self::appBuildEnv_>("sk.build.environment"),
  };
  return kFields;
}
