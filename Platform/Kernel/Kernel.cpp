#include "Platform/Kernel/Kernel.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
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
/// line is preceded by none. Looked for from `from` on first, where the lines asked for before end.
std::optional<std::uint64_t> meminfoBytes(std::string_view meminfo, std::string_view lead,
                                          std::size_t& from) {
  std::size_t after = lead.size() - 1;
  if (!meminfo.starts_with(lead.substr(1))) {
    std::size_t at = meminfo.find(lead, from);
    if (at == std::string_view::npos) at = meminfo.find(lead);
    if (at == std::string_view::npos) return std::nullopt;
    after = from = at + lead.size();
  }
  const auto kilobytes = leadingNumber<std::uint64_t>(meminfo.substr(after));
  if (!kilobytes) return std::nullopt;
  return *kilobytes * 1024;
}

/// When this process began, since boot.
std::optional<std::chrono::nanoseconds> began() {
  // Fields are separated by blanks and counted from 1, as proc(5) does. The name in the second one
  // may hold anything, so counting begins after its last parenthesis.
  constexpr int kBegan = 22;
  const auto stat = readSystemFile("/proc/self/stat");
  const std::size_t name = stat ? stat->rfind(')') : std::string::npos;
  const long ticksPerSecond = ::sysconf(_SC_CLK_TCK);
  if (name == std::string::npos || ticksPerSecond <= 0) return std::nullopt;
  std::string_view rest = std::string_view(*stat).substr(name + 1);
  for (int field = 3; field < kBegan; ++field) {
    rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
    rest.remove_prefix(std::min(rest.find(' '), rest.size()));
  }
  const auto ticks = leadingNumber<std::uint64_t>(rest);
  if (!ticks) return std::nullopt;
  return std::chrono::nanoseconds(std::chrono::seconds(1)) * *ticks / ticksPerSecond;
}

struct SharedUsage {
  Mutex mutex;
  std::optional<ProcessorUsage> usage GUARDED_BY(mutex);
};

SharedUsage& sharedUsage() {
  static NeverDestroyed<SharedUsage> shared;
  return *shared;
}

}  // namespace

std::optional<VirtualMemoryStatistics> hostVirtualMemoryStatistics() {
  const auto meminfo = readSystemFile("/proc/meminfo");
  if (!meminfo) return std::nullopt;
  std::size_t from = 0;
  const auto total = meminfoBytes(*meminfo, "\nMemTotal:", from);
  const auto free = meminfoBytes(*meminfo, "\nMemFree:", from);
  if (!total || !free) return std::nullopt;
  VirtualMemoryStatistics statistics;
  statistics.total = *total;
  statistics.free = *free;
  statistics.active = meminfoBytes(*meminfo, "\nActive:", from).value_or(0);
  statistics.inactive = meminfoBytes(*meminfo, "\nInactive:", from).value_or(0);
  for (const auto name : {"\nUnevictable:", "\nSUnreclaim:", "\nKernelStack:", "\nPageTables:"}) {
    statistics.wired += meminfoBytes(*meminfo, name, from).value_or(0);
  }
  return statistics;
}

float ProcessorUsage::percent(std::chrono::nanoseconds now, std::chrono::nanoseconds used) {
  using Seconds = std::chrono::duration<double>;
  constexpr std::chrono::seconds kLeast{1};
  constexpr Seconds kTick{0.01};
  if (now - last_.at >= kLeast) from_ = std::exchange(last_, {now, used});
  return static_cast<float>(
      100 * (Seconds(used - from_.used) / std::max(Seconds(now - from_.at), kTick)));
}

std::optional<float> taskThreadsCPUUsage() {
  SharedUsage& shared = sharedUsage();
  const MutexLock lock(shared.mutex);
  // Below another root is another machine.
  const bool isThisMachine = systemPath("").empty();
  if (!isThisMachine) shared.usage.reset();
  if (!shared.usage) {
    const auto since = began();
    if (!since) return std::nullopt;
    shared.usage.emplace(*since);
  }
  const auto now = uptime();
  struct ::timespec used;
  if (!now || ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used) != 0) return std::nullopt;
  const float percent = shared.usage->percent(
      *now, std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec));
  if (!isThisMachine) shared.usage.reset();
  return percent;
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
