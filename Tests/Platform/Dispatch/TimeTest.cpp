#include "Platform/Dispatch/Time.h"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>
#include <vector>

#include "Tests/Platform/Dispatch/Waiting.h"

namespace skelda::platform {
namespace {

using std::chrono::milliseconds;

TEST(TimeTest, TimesSaturateInsteadOfWrappingAround) {
  EXPECT_EQ(dispatchTimeAfter(std::chrono::nanoseconds::max()), DispatchTime::forever);
  EXPECT_EQ(dispatchWallTime(std::numeric_limits<std::int64_t>::max(), 0), DispatchTime::forever);
  EXPECT_EQ(dispatchWallTime(-4, 0), dispatchWallTime(0, 0));
  EXPECT_EQ(dispatchWallTime(std::numeric_limits<std::int64_t>::min(), 0), dispatchWallTime(0, 0));
  const DispatchTime now = dispatchTimeAfter({});
  EXPECT_GE(dispatchTimeAfter(milliseconds(-5)), now);
}

/// Whether one of the system's timers of the wall clock is told when that is set.
bool aTimerSeesTheClockSet() {
  for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream info(descriptor.path());
    std::stringstream text;
    text << info.rdbuf();
    if (text.str().find("clockid: 0\n") == std::string::npos) continue;
    if (text.str().find("settime flags: 03\n") != std::string::npos) return true;
  }
  return false;
}

TEST(TimeTest, DelayedBlocksComeInTheOrderOfTheirTimesAndNotBeforeThem) {
  const QueueRef queue = Queue::serial("delayed");
  std::vector<int> ran;
  Happening all(5);
  const auto begun = std::chrono::steady_clock::now();
  const auto add = [&](int number, milliseconds delay) {
    queue->after(dispatchTimeAfter(delay), [&, number, delay] {
      EXPECT_GE(std::chrono::steady_clock::now() - begun, delay);
      ran.push_back(number);
      all.happen();
    });
  };
  add(4, milliseconds(40));
  add(2, milliseconds(20));
  add(3, milliseconds(30));
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  queue->after(dispatchWallTime(now.tv_sec, now.tv_nsec + 5'000'000), [&] {
    ran.push_back(1);
    all.happen();
  });
  add(0, milliseconds(-1));
  EXPECT_TRUE(aTimerSeesTheClockSet());
  ASSERT_TRUE(all.cameInTime());
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 2, 3, 4}));
}

TEST(TimeTest, ADueBlockIsHeldByASuspensionAndOneForEverIsThrownAway) {
  const QueueRef queue = Queue::serial("delayed");
  const auto held = std::make_shared<int>();
  queue->after(DispatchTime::forever, [held] { FAIL(); });
  EXPECT_EQ(held.use_count(), 1);

  std::atomic<bool> ran{false};
  Happening due;
  queue->suspend();
  queue->after(dispatchTimeAfter(milliseconds(1)), [&] { ran = true; });
  Queue::global()->after(dispatchTimeAfter(milliseconds(10)), [&] { due.happen(); });
  ASSERT_TRUE(due.cameInTime());
  EXPECT_FALSE(ran);
  queue->resume();
  expectDrained(queue);
  EXPECT_TRUE(ran);
}

}  // namespace
}  // namespace skelda::platform
