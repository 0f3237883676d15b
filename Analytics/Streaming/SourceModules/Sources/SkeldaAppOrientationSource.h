#pragma once

#include <cstdint>

#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

/// Reports the orientation of the application.
class ISkeldaAppOrientationSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaAppOrientationSource";
};

/// A watch application has one orientation, portrait: it is sent once, at start-up.
class SkeldaAppOrientationSource
    : public SkeldaSource<SkeldaAppOrientationSource, ISkeldaAppOrientationSource> {
 public:
  static constexpr std::string_view kClassName = "SkeldaAppOrientationSource";
  static constexpr std::int32_t kPortrait = 1;

 private:
  friend SkeldaSource;
  SkeldaAppOrientationSource() = default;
  void onqueue_startup() override;
};
