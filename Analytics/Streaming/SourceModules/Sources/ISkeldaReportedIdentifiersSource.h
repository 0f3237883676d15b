#pragma once

#include <string_view>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"

/// Reports the identifiers under which the watch's data is counted.
class ISkeldaReportedIdentifiersSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaReportedIdentifiersSource";
};
