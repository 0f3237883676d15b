#include "Platform/Dispatch/Group.h"

#include <gtest/gtest.h>
#include <time.h>

#include <atomic>
#include <chrono>

#include "Tests/Platform/Dispatch/Waiting.h"

namespace skelda::platform {
namespace {

DispatchTime wallTimeIn(std::chrono::nanoseconds delta) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return dispatchWallTime(now.tv_sec, now.tv_nsec + delta.count());
}

TEST(GroupTest, AWaitTellsWhetherTheGroupEmptiedOrTheTimeCame) {
  const GroupRef group = Group::make();
  EXPECT_EQ(group->wait(DispatchTime::now), 0);
  EXPECT_EQ(group->wait(DispatchTime::forever), 0);
  group->enter();
  for (const DispatchTime past :
       {DispatchTime::now, dispatchTimeAfter(std::chrono::seconds(-5)),
        dispatchTimeAfter(std::chrono::milliseconds(2)), wallTimeIn(std::chrono::milliseconds(2)),
        wallTimeIn({}), dispatchWallTime(-1, 0)}) {
    EXPECT_NE(group->wait(past), 0);
  }
  Queue::global()->async([group] { group->leave(); });
  EXPECT_EQ(group->wait(wallTimeIn(std::chrono::seconds(20))), 0);
}

TEST(GroupTest, NotificationsComeOnceTheGroupIsEmptyAndAtOnceWhenItIs) {
  const GroupRef group = Group::make();
  const QueueRef queue = Queue::serial("notified");
  std::atomic<int> notified{0};
  Happening all(3);
  const auto note = [&] {
    ++notified;
    all.happen();
  };
  group->notify(queue, note);
  expectDrained(queue);
  EXPECT_EQ(notified, 1);

  group->enter();
  group->enter();
  group->notify(queue, note);
  group->notify(queue, note);
  group->leave();
  expectDrained(queue);
  EXPECT_EQ(notified, 1);
  group->leave();
  EXPECT_TRUE(all.cameInTime());
}

TEST(GroupDeathTest, LeavingMoreOftenThanEnteringEndsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(Group::make()->leave(), "as often as it is entered");
}

}  // namespace
}  // namespace skelda::platform
