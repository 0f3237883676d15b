#pragma once

#include <string_view>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// Reports the host application at start-up.
class ISkeldaAppInfoSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaAppInfoSource";
  /// A text, or null for none. Counts only when it is set before startup(). Any thread, returns at
  /// once.
  virtual void setAppVersion(platform::Value version) = 0;
};
