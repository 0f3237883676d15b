#pragma once

#include "Platform/Base/Log.h"
#include "Tests/Support/Testing.h"

namespace skelda::testing {

/// Takes the lines of the platform log for as long as it lives.
class LogCapture {
 public:
  LogCapture() {
    Log::setSink([this](std::string_view line) {
      std::lock_guard lock(mutex_);
      lines_.emplace_back(line);
    });
  }
  ~LogCapture() { Log::setSink({}); }

  Texts take() {
    arrive();
    std::lock_guard lock(mutex_);
    return std::exchange(lines_, {});
  }
  std::size_t count(std::string_view part) const {
    arrive();
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count_if(
        lines_.begin(), lines_.end(),
        [&](const std::string& line) { return line.find(part) != std::string::npos; }));
  }

 private:
  static void arrive() { EXPECT_TRUE(Log::flush(std::chrono::seconds(10))); }

  mutable std::mutex mutex_;
  Texts lines_;
};

}  // namespace skelda::testing
