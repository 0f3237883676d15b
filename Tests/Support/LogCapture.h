#pragma once

#include "Platform/Base/Log.h"
#include "Tests/Support/Basics.h"

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
    const auto has = [&](const std::string& line) { return line.find(part) != line.npos; };
    return static_cast<std::size_t>(std::ranges::count_if(lines_, has));
  }

 private:
  static void arrive() { EXPECT_TRUE(Log::flush(10s)); }

  mutable std::mutex mutex_;
  Texts lines_;
};

}  // namespace skelda::testing
