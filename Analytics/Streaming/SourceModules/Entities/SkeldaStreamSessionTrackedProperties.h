#pragma once

#include <cstdint>

/// The resource figures of one moment of a session. Sizes in bytes. A plain value.
struct SkeldaStreamSessionTrackedProperties {
  std::uint64_t freeMemory = 0;
  std::uint64_t activeMemory = 0;
  std::uint64_t wiredMemory = 0;
  std::uint64_t inactiveMemory = 0;
  float cpuUsage = 0;
  float batteryLevel = 0;
  std::uint32_t batteryCharging = 0;

  friend bool operator==(const SkeldaStreamSessionTrackedProperties&,
                         const SkeldaStreamSessionTrackedProperties&) = default;
};
