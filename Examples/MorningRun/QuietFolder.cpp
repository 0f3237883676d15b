#include "Examples/MorningRun/QuietFolder.h"

#include <functional>
#include <string>
#include <system_error>
#include <thread>

namespace fs = std::filesystem;

std::uint64_t QuietFolder::fingerprint() const {
  // Order does not matter, and a file that goes while we look is a change like any other.
  std::uint64_t sum = 0;
  std::error_code error;
  for (fs::recursive_directory_iterator entry(folder_, error), end; !error && entry != end;
       entry.increment(error)) {
    std::error_code gone;
    const auto written = entry->last_write_time(gone).time_since_epoch().count();
    const auto size = entry->is_regular_file(gone) ? entry->file_size(gone) : 0;
    sum += std::hash<std::string>{}(entry->path().string() + '\0' + std::to_string(written) + '\0' +
                                    std::to_string(size));
  }
  return sum;
}

bool QuietFolder::wait(std::chrono::milliseconds rest, std::chrono::milliseconds atMost) const {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + atMost;
  auto last = fingerprint();
  auto since = Clock::now();
  while (Clock::now() - since < rest) {
    if (Clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    if (const auto now = fingerprint(); now != last) {
      last = now;
      since = Clock::now();
    }
  }
  return true;
}
