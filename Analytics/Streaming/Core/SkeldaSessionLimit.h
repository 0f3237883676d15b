#pragma once

#include <cstdint>

namespace skelda {

/// The length of a session in milliseconds, in signed 32-bit arithmetic: it wraps around above
/// 35,791 minutes, as it always has.
constexpr std::int32_t sessionLimitInMilliseconds(std::int32_t minutes) noexcept {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(minutes) * 60000U);
}

}  // namespace skelda
