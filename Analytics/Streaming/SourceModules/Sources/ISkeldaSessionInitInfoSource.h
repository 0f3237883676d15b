#pragma once

#include <string>
#include <string_view>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"

/// Reports once per process what the agent is and whose application it serves.
class ISkeldaSessionInitInfoSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaSessionInitInfoSource";
  /// The reported agent version in decimal, "0" before there is one. Waits for the source's queue.
  virtual std::string getSkeldaAgentVersionNumber() = 0;
  /// False before there is a report. Waits for the source's queue.
  virtual bool includeBackgroundSessionsInMetrics() = 0;
  /// The library's version, as its users know it.
  virtual std::string getSkeldaVersion() = 0;
  /// The agent's version as it stands in file names.
  virtual std::string getSkeldaAgentVersionWithBuild() = 0;
};
