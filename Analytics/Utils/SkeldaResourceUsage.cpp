#include "Skelda_Watch/SkeldaResourceUsage.h"

#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Kernel/Kernel.h"

namespace {

using Statistics = platform::VirtualMemoryStatistics;

std::uint64_t figure(std::uint64_t Statistics::*member) {
  const auto statistics = platform::hostVirtualMemoryStatistics();
  if (!statistics) {
    SKELDA_LOG(2, "Failed to fetch vm statistics");
    return 0;
  }
  return (*statistics).*member;
}

}  // namespace

float total_cpu_usage() {
  return platform::taskThreadsCPUUsage().value_or(0.0F);
}
std::uint64_t wiredMemoryUsage() {
  return figure(&Statistics::wired);
}
std::uint64_t activeMemoryUsage() {
  return figure(&Statistics::active);
}
std::uint64_t inActiveMemoryUsage() {
  return figure(&Statistics::inactive);
}
std::uint64_t freeMemoryUsage() {
  return figure(&Statistics::free);
}
