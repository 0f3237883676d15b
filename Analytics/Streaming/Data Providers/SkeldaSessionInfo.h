#pragma once

#include <string>

#include "Analytics/Utils/SkeldaAgentVersion.h"

/// The agent's version as it stands in file names, keys and frames.
class SkeldaSessionInfo {
 public:
  /// "261"
  static std::string getAgentVersion() { return std::to_string(kSkeldaAgentVersion); }
};
