#pragma once

#include <string>

#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

/// Reports the device at start-up.
class ISkeldaDevicePropertiesSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaDevicePropertiesSource";
};

class SkeldaDevicePropertiesSource
    : public SkeldaSource<SkeldaDevicePropertiesSource, ISkeldaDevicePropertiesSource> {
 public:
  static constexpr std::string_view kClassName = "SkeldaDevicePropertiesSource";
  /// The architecture that the ingestion side knows watches by, whatever this machine's is.
  static std::string systemArch() { return "arm32"; }

 private:
  friend SkeldaSource;
  SkeldaDevicePropertiesSource() = default;
  void onqueue_startup() override;
};
