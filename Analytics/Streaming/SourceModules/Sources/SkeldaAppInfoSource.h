#pragma once

#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Sources/ISkeldaAppInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

/// Sends one app info, at start-up, made of the main bundle's information.
class SkeldaAppInfoSource : public SkeldaSource<SkeldaAppInfoSource, ISkeldaAppInfoSource> {
 public:
  static constexpr std::string_view kClassName = "SkeldaAppInfoSource";
  void setAppVersion(platform::Value version) override;

 private:
  friend SkeldaSource;
  SkeldaAppInfoSource() = default;
  void onqueue_startup() override;
  void onqueue_setAppVersion(platform::Value version);

  std::optional<std::string> versionOverride_;
};
