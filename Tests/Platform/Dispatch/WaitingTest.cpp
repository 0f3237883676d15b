#include "Platform/Dispatch/Once.h"
#include "Tests/Platform/Dispatch/Waiting.h"

namespace {

DispatchTime wallTimeIn(std::chrono::nanoseconds delta) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return dispatchWallTime(now.tv_sec, now.tv_nsec + delta.count());
}

TEST(TimeTest, TimesSaturateInsteadOfWrappingAround) {
  EXPECT_EQ(dispatchTimeAfter(std::chrono::nanoseconds::max()), DispatchTime::forever);
  EXPECT_EQ(dispatchWallTime(std::numeric_limits<std::int64_t>::max(), 0), DispatchTime::forever);
  EXPECT_EQ(dispatchWallTime(-4, 0), dispatchWallTime(0, 0));
  EXPECT_EQ(dispatchWallTime(std::numeric_limits<std::int64_t>::min(), 0), dispatchWallTime(0, 0));
  const DispatchTime now = dispatchTimeAfter({});
  EXPECT_GE(dispatchTimeAfter(-5ms), now);
}

/// Whether one of the system's timers of the wall clock is told when that is set.
bool aTimerSeesTheClockSet() {
  for (const auto& descriptor : std::filesystem::directory_iterator("/proc/self/fdinfo")) {
    const std::string text = readFile(descriptor.path());
    if (text.find("clockid: 0\n") != text.npos && text.find("settime flags: 03\n") != text.npos)
      return true;
  }
  return false;
}

TEST(TimeTest, DelayedBlocksComeInTheOrderOfTheirTimesAndNotBeforeThem) {
  const QueueRef queue = Queue::serial("delayed");
  std::vector<int> ran;
  Happening all(5);
  const auto begun = std::chrono::steady_clock::now();
  const auto add = [&](int number, DispatchTime time, std::chrono::milliseconds delay = {}) {
    queue->after(time, [&, number, delay] {
      EXPECT_GE(std::chrono::steady_clock::now() - begun, delay);
      ran.push_back(number);
      all.happen();
    });
  };
  for (const int number : {4, 2, 3}) add(number, dispatchTimeAfter(10ms * number), 10ms * number);
  add(1, wallTimeIn(5ms));
  add(0, dispatchTimeAfter(-1ms));
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
  queue->after(dispatchTimeAfter(1ms), [&] { ran = true; });
  Queue::global()->after(dispatchTimeAfter(10ms), [&] { due.happen(); });
  ASSERT_TRUE(due.cameInTime());
  EXPECT_FALSE(ran);
  queue->resume();
  expectDrained(queue);
  EXPECT_TRUE(ran);
}

TEST(GroupTest, AWaitTellsWhetherTheGroupEmptiedOrTheTimeCame) {
  const GroupRef group = Group::make();
  EXPECT_EQ(group->wait(DispatchTime::now), 0);
  EXPECT_EQ(group->wait(DispatchTime::forever), 0);
  group->enter();
  for (const DispatchTime past : {DispatchTime::now, dispatchTimeAfter(-5s), dispatchTimeAfter(2ms),
                                  wallTimeIn(2ms), wallTimeIn({}), dispatchWallTime(-1, 0)})
    EXPECT_NE(group->wait(past), 0);
  Queue::global()->async([group] { group->leave(); });
  EXPECT_EQ(group->wait(wallTimeIn(20s)), 0);
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
  for (int times = 0; times < 2; ++times) group->notify(queue, note);
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

TEST(OnceTest, OneCallerRunsTheBodyAndTheOthersSeeWhatItDid) {
  for (int round = 0; round < 50; ++round) {
    Once once;
    int made = 0;
    std::atomic<int> ran{0};
    inThreads(4, [&](unsigned) {
      ran += once([&] { ++made; });
      EXPECT_EQ(made, 1);
    });
    EXPECT_EQ(ran, 1);
  }
}

TEST(OnceTest, ABodyThatThrowsCountsAsDoneAndOneThatCallsItsOwnGuardGoesOnWithALogLine) {
  Once thrown, once;
  EXPECT_THROW(thrown([] { throw std::runtime_error("thrown"); }), std::runtime_error);
  EXPECT_TRUE(thrown.isDone());
  EXPECT_FALSE(thrown([] { FAIL(); }));
  LogCapture log;
  bool inner = true;
  EXPECT_TRUE(once([&] { inner = once([] { FAIL(); }); }));
  EXPECT_FALSE(inner);
  EXPECT_EQ(log.take().size(), 1U);
}

TEST(OnceTest, WaitingForTheBodyLetsThePoolGrow) {
  // The body needs a thread of the pool while many of them wait for it.
  Once once;
  Happening begun, all(33);
  Queue::global()->async([&] {
    once([&] {
      begun.happen();
      Happening done;
      for (int i = 0; i < 32; ++i) {
        Queue::global()->async([&] {
          once([] { FAIL(); });
          EXPECT_TRUE(once.isDone());
          all.happen();
        });
      }
      Queue::global()->async([&] { done.happen(); });
      EXPECT_TRUE(done.cameInTime());
    });
    all.happen();
  });
  EXPECT_TRUE(begun.cameInTime());
  EXPECT_TRUE(all.cameInTime());
}

}  // namespace
