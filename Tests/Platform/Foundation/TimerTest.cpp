#include "Platform/Foundation/Timer.h"

#include "Tests/Platform/Dispatch/Waiting.h"

namespace {

TEST(TimerTest, ARepeatingTimerKeepsItsRasterUntilItsTickInvalidatesIt) {
  const QueueRef queue = Queue::serial("ticks");
  const auto begun = std::chrono::steady_clock::now();
  int ticks = 0;
  Happening over;
  const auto timer = Timer::scheduled(3ms, true, queue, [&](Timer& self) {
    EXPECT_TRUE(queue->isCurrent());
    EXPECT_TRUE(self.isValid());
    EXPECT_GE(std::chrono::steady_clock::now() - begun, 3ms * ++ticks);
    if (ticks < 5) return;
    self.invalidate();
    over.happen();
  });
  ASSERT_TRUE(over.cameInTime());
  EXPECT_FALSE(timer->isValid());
  EXPECT_FALSE(Happening().cameInTime(15ms));
  queue->sync([&] { EXPECT_EQ(ticks, 5); });
}

TEST(TimerTest, NoTickBeginsAfterItIsInvalidatedOrLetGo) {
  const QueueRef queue = Queue::serial("ticks");
  const auto held = std::make_shared<int>();
  std::atomic<int> ticks{0};
  const auto make = [&] {
    return Timer::scheduled(1ms, true, queue, [&ticks, held](Timer&) { ++ticks; });
  };
  queue->suspend();
  auto invalidated = make();
  auto letGo = make();
  EXPECT_FALSE(Happening().cameInTime(10ms));  // both are due and wait in the queue
  invalidated->invalidate();
  letGo.reset();
  queue->resume();
  expectDrained(queue);
  EXPECT_EQ(ticks, 0);
  invalidated.reset();
  EXPECT_EQ(held.use_count(), 1);
  const QueueRef own = Queue::serial("own");
  Timer::scheduled(1h, false, own, [](Timer&) {})->invalidate();
  EXPECT_EQ(own.use_count(), 1) << "nothing waits for its time";
}

}  // namespace
