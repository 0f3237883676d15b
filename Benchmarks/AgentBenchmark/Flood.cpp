#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "Benchmarks/AgentBenchmark/Measurements.h"
#include "Skelda_Watch/SkeldaWatch.h"

namespace measure {

namespace {

std::uint64_t residentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("VmRSS:")) return std::stoull(line.substr(6));
  }
  return 0;
}

}  // namespace

Json flood(std::uint64_t events) {
  constexpr std::uint64_t kLook = 10'000;
  logEvent(0);
  rest();
  const auto before = SkeldaWatch::account().events;
  const std::uint64_t memoryBefore = residentKiB();
  std::uint64_t memory = memoryBefore;
  std::uint64_t answered = 0;
  for (std::uint64_t i = 1; i <= events; ++i) {
    answered += SkeldaWatch::logWatchEvent(kName, fiveParameters(i));
    if (i % kLook == 0) memory = std::max(memory, residentKiB());
  }
  const auto after = SkeldaWatch::account().events;
  return {{"calls", events},
          {"answered_1", answered},
          {"accepted", after.accepted - before.accepted},
          {"memory_kib", memory - memoryBefore}};
}

}  // namespace measure
