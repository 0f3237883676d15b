#pragma once

#include <chrono>
#include <cstdint>
#include <optional>

#include "Platform/Foundation/Date.h"

namespace skelda::platform {

/// The machine's memory in bytes, read from /proc/meminfo. Wired is what cannot be paged out
/// (unevictable, slab that cannot be reclaimed, page tables, kernel stacks).
struct VirtualMemoryStatistics {
  std::uint64_t total = 0;
  std::uint64_t free = 0;
  std::uint64_t active = 0;
  std::uint64_t inactive = 0;
  std::uint64_t wired = 0;
};

/// Any thread; nothing where the system does not say.
std::optional<VirtualMemoryStatistics> hostVirtualMemoryStatistics();
/// Sum over the threads of this process of their share of one processor in percent since each
/// thread began.
std::optional<float> taskThreadsCPUUsage();
/// Time since boot, suspension included (CLOCK_BOOTTIME). Reads no file.
std::optional<std::chrono::nanoseconds> uptime();
/// Now minus the uptime.
std::optional<Date> bootTime();

}  // namespace skelda::platform
