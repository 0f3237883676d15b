#include "Platform/Dispatch/MainQueue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <thread>

#include "Tests/Platform/Dispatch/Waiting.h"

namespace skelda::platform {
namespace {

std::thread::id threadOfMainQueue() {
  std::thread::id id;
  Queue::main()->sync([&] {
    EXPECT_TRUE(MainQueue::isMainThread());
    EXPECT_TRUE(Queue::main()->isCurrent());
    id = std::this_thread::get_id();
  });
  return id;
}

TEST(MainQueueTest, AThreadOfTheLayerServesItAndNobodyElseIsTheMainThread) {
  EXPECT_NE(threadOfMainQueue(), std::this_thread::get_id());
  EXPECT_FALSE(MainQueue::isMainThread());
  Queue::global()->sync([] { EXPECT_FALSE(MainQueue::isMainThread()); });
}

TEST(MainQueueTest, QueuesAboveItRunOnTheMainThreadTooEvenSynchronously) {
  const QueueRef above = Queue::serial("above main", Queue::main());
  const QueueRef gate = Queue::concurrent("gate on main", above);
  bool isMain = false;
  gate->sync([&] { isMain = MainQueue::isMainThread(); });
  EXPECT_TRUE(isMain);
  EXPECT_THROW(above->sync([] { throw std::runtime_error("thrown"); }), std::runtime_error);
}

TEST(MainQueueTest, AHostThreadTakesItOverAndGivesItBack) {
  for (int round = 0; round < 3; ++round) {
    Happening serving;
    Happening over;
    std::thread host([&] {
      Queue::main()->async([&] {
        // The layer's thread may have been quicker, then it is too early to look.
        serving.happen();
      });
      EXPECT_TRUE(MainQueue::run());
      EXPECT_FALSE(MainQueue::isMainThread());
      over.happen();
    });
    ASSERT_TRUE(serving.cameInTime());
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (threadOfMainQueue() != host.get_id() && std::chrono::steady_clock::now() < limit) {
      std::this_thread::yield();
    }
    EXPECT_EQ(threadOfMainQueue(), host.get_id());
    EXPECT_FALSE(MainQueue::run()) << "one host at a time";
    Queue::main()->sync([] { EXPECT_FALSE(MainQueue::run()); });
    Queue::main()->async([] { MainQueue::stop(); });
    EXPECT_TRUE(over.cameInTime());
    EXPECT_NE(threadOfMainQueue(), host.get_id());
    host.join();
  }
}

TEST(MainQueueTest, AStopThatComesBeforeTheHostServesIsNotLost) {
  MainQueue::stop();
  threadOfMainQueue();  // served by the layer meanwhile
  EXPECT_TRUE(MainQueue::run());
}

TEST(MainQueueTest, AStopEndsTheHostsServiceWithTheBlockThatItComesIn) {
  const Happening busy, leave;
  std::atomic<bool> left{false};
  Queue::serial("above", Queue::main())->async([&] {
    busy.happen();
    EXPECT_TRUE(leave.cameInTime());
    left = true;
  });
  ASSERT_TRUE(busy.cameInTime());
  std::thread host([] { EXPECT_TRUE(MainQueue::run()); });
  Queue::main()->async([&] { EXPECT_TRUE(left) << "one block at a time, whoever serves"; });
  EXPECT_FALSE(Happening().cameInTime(std::chrono::milliseconds(10)));
  leave.happen();
  while (threadOfMainQueue() != host.get_id()) std::this_thread::yield();
  std::atomic<int> afterTheStop{0};
  Queue::main()->async([&] {
    for (int i = 0; i < 20; ++i) {
      Queue::main()->async([&] { afterTheStop += std::this_thread::get_id() == host.get_id(); });
    }
    MainQueue::stop();
  });
  expectDrained(Queue::main());  // the block, which puts twenty more behind
  expectDrained(Queue::main());
  EXPECT_EQ(afterTheStop, 0);
  host.join();
}

}  // namespace
}  // namespace skelda::platform
