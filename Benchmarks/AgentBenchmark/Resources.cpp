#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "Benchmarks/AgentBenchmark/Measurements.h"

namespace measure {

namespace {

namespace fs = std::filesystem;

/// The number behind `key` in one of the status files of /proc.
std::uint64_t statusOf(const fs::path& path, const std::string& key) {
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);)
    if (line.starts_with(key)) return std::stoull(line.substr(key.size()));
  return 0;
}

struct Threads {
  std::uint64_t count = 0;
  std::uint64_t wakeUps = 0;  // of all but the calling one
};

Threads threads() {
  Threads result;
  const auto own = std::to_string(::gettid());
  for (const auto& task : fs::directory_iterator("/proc/self/task")) {
    ++result.count;
    if (task.path().filename() != own)
      result.wakeUps += statusOf(task.path() / "status", "voluntary_ctxt_switches:");
  }
  return result;
}

/// Anonymous is what was allocated, in the heap or elsewhere; the rest are pages of files.
struct Memory {
  std::uint64_t resident = statusOf("/proc/self/smaps_rollup", "Rss:");
  std::uint64_t anonymous = statusOf("/proc/self/smaps_rollup", "Anonymous:");
};

}  // namespace

Json resources(std::uint64_t events) {
  const Memory before;
  const auto threadsBefore = threads().count;
  for (std::uint64_t i = 0; i < events; ++i) {
    logEvent(i);
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  rest();
  const auto settled = threads();
  // Threads that have nothing to do are given the time to go.
  std::this_thread::sleep_for(std::chrono::seconds(12));
  const auto idle = threads();
  const Memory after;
  std::this_thread::sleep_for(std::chrono::seconds(5));
  const auto later = threads();
  const auto added = [](std::uint64_t now, std::uint64_t then) {
    return static_cast<std::int64_t>(now) - static_cast<std::int64_t>(then);
  };
  return {{"memory_kib", added(after.resident, before.resident)},
          {"anonymous_kib", added(after.anonymous, before.anonymous)},
          {"threads_settled", settled.count - threadsBefore},
          {"threads", idle.count - threadsBefore},
          {"wake_ups", later.wakeUps - idle.wakeUps},
          {"seconds", 5}};
}

}  // namespace measure
