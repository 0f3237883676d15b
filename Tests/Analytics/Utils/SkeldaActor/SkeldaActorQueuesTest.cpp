#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "Analytics/Utils/SkeldaActor/SkeldaActorDeferredQueue.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActorOperationQueue.h"
#include "Tests/Platform/Dispatch/Waiting.h"

namespace {

using platform::Happening;

class SkeldaActorDeferredQueueTest : public testing::Test {
 protected:
  std::shared_ptr<SkeldaActor> actor_ = SkeldaActor::made(new SkeldaActor("Gated"));
  std::shared_ptr<SkeldaActorDeferredQueue> gate_ =
      actor_->createDeferredQueueWithDescription("Gate");
};

TEST_F(SkeldaActorDeferredQueueTest, HoldsBlocksInOrderUntilTheGateOpens) {
  EXPECT_EQ(gate_->suspendCount(), 1U);
  EXPECT_EQ(gate_->queue()->label(), "Gate");
  std::vector<int> ran;
  const auto post = [&](int number) {
    gate_->asyncBlock([&, number] {
      actor_->assertRunningInActor();
      ran.push_back(number);
    });
  };
  for (int i = 0; i < 200; ++i) post(i);
  actor_->syncBlock([&] { EXPECT_TRUE(ran.empty()); });
  gate_->suspend();
  EXPECT_EQ(gate_->suspendCount(), 2U);
  gate_->resume();
  actor_->syncBlock([&] { EXPECT_TRUE(ran.empty()); });
  gate_->resume();
  for (int i = 200; i < 400; ++i) post(i);
  gate_->syncBlock([&] {
    EXPECT_EQ(ran.size(), 400U);
    for (int i = 0; i < 400; ++i) EXPECT_EQ(ran[static_cast<std::size_t>(i)], i);
  });
}

TEST_F(SkeldaActorDeferredQueueTest, ASynchronousBlockPassesAClosedGateOnlyFromInsideTheActor) {
  int ran = 0;
  actor_->syncBlock([&] { gate_->syncBlock([&] { ++ran; }); });
  EXPECT_EQ(ran, 1);
  std::atomic<bool> passed{false};
  std::thread outside([&] {
    EXPECT_THROW(gate_->syncBlock([&] {
      passed = true;
      throw platform::Exception("Name", "reason");
    }),
                 platform::Exception);
  });
  EXPECT_FALSE(Happening().cameInTime(std::chrono::milliseconds(20)));
  EXPECT_FALSE(passed);
  gate_->resume();
  outside.join();
  EXPECT_TRUE(passed);
}

TEST_F(SkeldaActorDeferredQueueTest, MayBeDroppedInsideItsOwnSynchronousBlock) {
  gate_->resume();
  gate_->syncBlock([&] { gate_.reset(); });
  EXPECT_EQ(gate_, nullptr);
}

TEST_F(SkeldaActorDeferredQueueTest, DoesNotKeepItsActorAndNeedsItsArguments) {
  EXPECT_THROW(SkeldaActorDeferredQueue(), platform::Exception);
  EXPECT_THROW(SkeldaActorDeferredQueue(std::nullopt, actor_), platform::Exception);
  EXPECT_THROW(SkeldaActorDeferredQueue("Gate", nullptr), platform::Exception);
  EXPECT_EQ(gate_->actor(), actor_);
  gate_->syncBlock(nullptr);
  actor_.reset();
  EXPECT_EQ(gate_->actor(), nullptr);
  gate_->asyncBlock([] { FAIL(); });
  gate_->resume();
  expectDrained(gate_->queue());
}

TEST(SkeldaActorOperationQueueTest,
     RunsOnlyTheMainOfOperationsInsideTheActorAndDropsWhatTheyThrow) {
  const auto actor = SkeldaActor::made(new SkeldaActor("Operating"));
  const auto queue = actor->operationQueue();
  EXPECT_EQ(queue, actor->operationQueue());
  EXPECT_EQ(queue->owner(), actor);
  EXPECT_EQ(queue->underlyingQueue(), actor->queue());

  const auto before = skelda::swallowedExceptions();
  std::vector<int> ran;
  const auto operation = [&](int number) {
    return std::make_shared<platform::BlockOperation>([&, number] {
      actor->assertRunningInActor();
      ran.push_back(number);
      if (number % 2 != 0) throw number;
    });
  };
  queue->addOperation(operation(0));
  queue->addOperation(operation(1));
  queue->addOperations({operation(2), operation(3), operation(4)}, true);
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_EQ(skelda::swallowedExceptions() - before, 2U);
  actor->setOperationQueue(nullptr);  // the two hold each other
}

}  // namespace
