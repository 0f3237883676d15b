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

/// What was used of one processor lately, from readings that may come at any time.
class ProcessorUsage {
 public:
  explicit ProcessorUsage(std::chrono::nanoseconds began) : from_{began, {}}, last_{began, {}} {}
  /// The time, and what has been used since the begin.
  float percent(std::chrono::nanoseconds now, std::chrono::nanoseconds used);

 private:
  struct Reading {
    std::chrono::nanoseconds at;
    std::chrono::nanoseconds used;
  };
  Reading from_;
  Reading last_;
};

/// Any thread; nothing where the system does not say.
std::optional<VirtualMemoryStatistics> hostVirtualMemoryStatistics();
/// Sum over the threads of this process of their share of one processor, in percent: of the last
/// second at least, and before that since the process began.
std::optional<float> taskThreadsCPUUsage();
/// Time since boot, suspension included (CLOCK_BOOTTIME). Reads no file.
std::optional<std::chrono::nanoseconds> uptime();
/// Now minus the uptime.
std::optional<Date> bootTime();

}  // namespace skelda::platform
