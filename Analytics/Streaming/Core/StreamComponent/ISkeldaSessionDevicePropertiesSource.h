#pragma once

#include <memory>
#include <string_view>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesData.h"

/// Reports the device's resource figures at the start and the end of a session.
class ISkeldaSessionDevicePropertiesSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaSessionDevicePropertiesSource";
  using DataRef = std::shared_ptr<const SkeldaSessionDevicePropertiesData>;
  /// Keeps a start snapshot that was reported by another road. Any thread, returns at once.
  virtual void setSessionDevicePropertiesData(DataRef data) = 0;
  /// The start snapshot, or null. Any thread; waits for the source's queue.
  virtual DataRef sessionDevicePropertiesData() = 0;
};
