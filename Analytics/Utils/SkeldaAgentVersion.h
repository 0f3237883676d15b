#pragma once

#include <cstdint>

/// The agent's version as it stands in file names, keys and frames.
inline constexpr std::uint16_t kSkeldaAgentVersion = 261;
