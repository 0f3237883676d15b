#pragma once

#include <cstdint>
#include <string>

/// The agent's version as it stands in file names, keys and frames.
class SkeldaSessionInfo {
 public:
  static constexpr std::uint16_t kAgentVersion = 261;
  /// "261"
  static std::string getAgentVersion() { return std::to_string(kAgentVersion); }
};
