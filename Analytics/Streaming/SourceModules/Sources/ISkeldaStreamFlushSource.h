#pragma once

#include <cstdint>
#include <string_view>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"

/// Forces a log roll from outside the pipeline.
class ISkeldaStreamFlushSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamFlushSource";
  /// Any thread, returns at once.
  virtual void flushWithStatus(std::int32_t status) = 0;
};
