#include "Platform/Kernel/Kernel.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <string>
#include <string_view>

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

/// The bytes of a "Name:   123 kB" line.
std::optional<std::uint64_t> meminfoBytes(std::string_view meminfo, std::string_view name) {
  while (!meminfo.empty()) {
    const std::size_t end = std::min(meminfo.find('\n'), meminfo.size() - 1);
    const std::string_view line = meminfo.substr(0, end);
    if (line.starts_with(name) && line.substr(name.size()).starts_with(":")) {
      const auto kilobytes = leadingNumber<std::uint64_t>(line.substr(name.size() + 1));
      if (kilobytes) return *kilobytes * 1024;
      return std::nullopt;
    }
    meminfo.remove_prefix(end + 1);
  }
  return std::nullopt;
}

/// The blank-separated field, counted from 1 as proc(5) does, of a thread's stat line. The name in
/// the second field may hold anything, so counting begins after its last parenthesis.
std::optional<std::uint64_t> statField(std::string_view stat, int number) {
  const std::size_t name = stat.rfind(')');
  if (name == std::string_view::npos) return std::nullopt;
  stat.remove_prefix(name + 1);
  for (int field = 3; !stat.empty(); ++field) {
    stat.remove_prefix(std::min(stat.find_first_not_of(' '), stat.size()));
    if (field == number) return leadingNumber<std::uint64_t>(stat);
    stat.remove_prefix(std::min(stat.find(' '), stat.size()));
  }
  return std::nullopt;
}

}  // namespace

std::optional<VirtualMemoryStatistics> hostVirtualMemoryStatistics() {
  const auto meminfo = readSystemFile("/proc/meminfo");
  if (!meminfo) return std::nullopt;
  const auto total = meminfoBytes(*meminfo, "MemTotal");
  const auto free = meminfoBytes(*meminfo, "MemFree");
  if (!total || !free) return std::nullopt;
  VirtualMemoryStatistics statistics;
  statistics.total = *total;
  statistics.free = *free;
  statistics.active = meminfoBytes(*meminfo, "Active").value_or(0);
  statistics.inactive = meminfoBytes(*meminfo, "Inactive").value_or(0);
  for (const auto name : {"Unevictable", "SUnreclaim", "PageTables", "KernelStack"}) {
    statistics.wired += meminfoBytes(*meminfo, name).value_or(0);
  }
  return statistics;
}

std::optional<float> taskThreadsCPUUsage() {
  const auto threads = systemFolderEntries("/proc/self/task");
  const auto now = uptime();
  const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
  if (threads.empty() || !now || ticksPerSecond <= 0) return std::nullopt;
  const double ticksNow =
      std::chrono::duration<double>(*now).count() * static_cast<double>(ticksPerSecond);
  double percent = 0;
  for (const std::string& thread : threads) {
    // A thread may have ended since the folder was read.
    const auto stat = readSystemFile("/proc/self/task/" + thread + "/stat");
    if (!stat) continue;
    const auto user = statField(*stat, 14);
    const auto system = statField(*stat, 15);
    const auto began = statField(*stat, 22);
    if (!user || !system || !began) continue;
    const double lived = std::max(ticksNow - static_cast<double>(*began), 1.0);
    percent += 100.0 * static_cast<double>(*user + *system) / lived;
  }
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
