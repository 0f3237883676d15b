#include "Platform/Kernel/Kernel.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/SystemFiles.h"

namespace skelda::platform {

namespace {

/// The number at the front of `text`, after blanks.
template <class Number>
std::optional<Number> leadingNumber(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  Number number{};
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc{}) return std::nullopt;
  return number;
}

/// The bytes of the line "Name:   123 kB" whose begin is `lead`, a line feed and "Name:". The first
/// line is preceded by none.
std::optional<std::uint64_t> meminfoBytes(std::string_view meminfo, std::string_view lead) {
  std::size_t after = lead.size() - 1;
  if (!meminfo.starts_with(lead.substr(1))) {
    const std::size_t at = meminfo.find(lead);
    if (at == std::string_view::npos) return std::nullopt;
    after = at + lead.size();
  }
  const auto kilobytes = leadingNumber<std::uint64_t>(meminfo.substr(after));
  if (!kilobytes) return std::nullopt;
  return *kilobytes * 1024;
}

/// What a thread's stat line says of its time, in ticks.
struct ThreadTimes {
  std::uint64_t used = 0;  ///< by itself and by the kernel for it
  std::uint64_t began = 0;
};

/// Fields are separated by blanks and counted from 1, as proc(5) does. The name in the second field
/// may hold anything, so counting begins after its last parenthesis.
std::optional<ThreadTimes> threadTimes(std::string_view stat) {
  constexpr int kUser = 14;
  constexpr int kSystem = 15;
  constexpr int kBegan = 22;
  const std::size_t name = stat.rfind(')');
  if (name == std::string_view::npos) return std::nullopt;
  const char* at = stat.data() + name + 1;
  const char* const end = stat.data() + stat.size();
  ThreadTimes times;
  for (int field = 3; field <= kBegan; ++field) {
    while (at != end && *at == ' ') ++at;
    if (field == kUser || field == kSystem || field == kBegan) {
      std::uint64_t number = 0;
      if (std::from_chars(at, end, number).ec != std::errc{}) return std::nullopt;
      (field == kBegan ? times.began : times.used) += number;
    }
    while (at != end && *at != ' ') ++at;
  }
  return times;
}

/// When a thread began does not change, and what it has used the kernel says without a file.
struct KnownThreads {
  Mutex mutex;
  std::map<::pid_t, std::uint64_t> began GUARDED_BY(mutex);  ///< in ticks
};

KnownThreads& knownThreads() {
  static NeverDestroyed<KnownThreads> shared;
  return *shared;
}

/// Seconds of the processor that a thread of this process has used.
std::optional<double> usedBy(::pid_t thread) {
  // As pthread_getcpuclockid() makes it of a thread that it knows.
  const auto clock = static_cast<::clockid_t>(~static_cast<unsigned>(thread) << 3 | 6U);
  struct ::timespec used;
  if (::clock_gettime(clock, &used) != 0) return std::nullopt;
  return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

/// How much of a processor one thread has used since it began, in percent; nothing where it has
/// ended. `known` is that of the threads before, `still` takes this one.
std::optional<double> usageOf(const std::string& name, double secondsNow, double ticksPerSecond,
                              const std::map<::pid_t, std::uint64_t>& known,
                              std::map<::pid_t, std::uint64_t>& still) {
  ::pid_t thread = 0;
  std::from_chars(name.data(), name.data() + name.size(), thread);
  const auto found = known.find(thread);
  std::optional<double> used = found != known.end() ? usedBy(thread) : std::nullopt;
  std::uint64_t began = found != known.end() ? found->second : 0;
  if (!used) {
    const auto stat = readSystemFile("/proc/self/task/" + name + "/stat");
    const auto times = stat ? threadTimes(*stat) : std::nullopt;
    if (!times) return std::nullopt;
    began = times->began;
    used = static_cast<double>(times->used) / ticksPerSecond;
  }
  still.emplace(thread, began);
  const double lived = secondsNow - static_cast<double>(began) / ticksPerSecond;
  return 100.0 * *used / std::max(lived, 1 / ticksPerSecond);
}

}  // namespace

std::optional<VirtualMemoryStatistics> hostVirtualMemoryStatistics() {
  const auto meminfo = readSystemFile("/proc/meminfo");
  if (!meminfo) return std::nullopt;
  const auto total = meminfoBytes(*meminfo, "\nMemTotal:");
  const auto free = meminfoBytes(*meminfo, "\nMemFree:");
  if (!total || !free) return std::nullopt;
  VirtualMemoryStatistics statistics;
  statistics.total = *total;
  statistics.free = *free;
  statistics.active = meminfoBytes(*meminfo, "\nActive:").value_or(0);
  statistics.inactive = meminfoBytes(*meminfo, "\nInactive:").value_or(0);
  for (const auto name : {"\nUnevictable:", "\nSUnreclaim:", "\nPageTables:", "\nKernelStack:"}) {
    statistics.wired += meminfoBytes(*meminfo, name).value_or(0);
  }
  return statistics;
}

std::optional<float> taskThreadsCPUUsage() {
  const auto threads = systemFolderEntries("/proc/self/task");
  const auto now = uptime();
  const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
  if (threads.empty() || !now || ticksPerSecond <= 0) return std::nullopt;
  const double seconds = std::chrono::duration<double>(*now).count();
  KnownThreads& known = knownThreads();
  const MutexLock lock(known.mutex);
  // Below another root are other threads.
  if (!systemPath("").empty()) known.began.clear();
  std::map<::pid_t, std::uint64_t> still;
  double percent = 0;
  for (const std::string& thread : threads) {
    // A thread may have ended since the folder was read.
    percent += usageOf(thread, seconds, static_cast<double>(ticksPerSecond), known.began, still)
                   .value_or(0);
  }
  known.began = systemPath("").empty() ? std::move(still) : decltype(still)();
  return static_cast<float>(percent);
}

std::optional<std::chrono::nanoseconds> uptime() {
  struct ::timespec now;
  if (::clock_gettime(CLOCK_BOOTTIME, &now) != 0) return std::nullopt;
  return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
}

std::optional<Date> bootTime() {
  const auto sinceBoot = uptime();
  if (!sinceBoot) return std::nullopt;
  return Date(Date::now().microsecondsSince1970() -
              std::chrono::duration_cast<Date::Microseconds>(*sinceBoot));
}

}  // namespace skelda::platform
