#include "Platform/Foundation/OperationQueue.h"

#include <gtest/gtest.h>

#include <vector>

#include "Tests/Platform/Dispatch/Waiting.h"

namespace skelda::platform {
namespace {

TEST(OperationQueueTest, RunsOnTheUnderlyingQueueInOrderAndDropsWhatOperationsThrow) {
  OperationQueue operations;
  const QueueRef queue = Queue::serial("underlying");
  operations.setUnderlyingQueue(queue);
  std::vector<int> ran;
  std::vector<OperationRef> all;
  for (int i = 0; i < 20; ++i) {
    all.push_back(std::make_shared<BlockOperation>([&, i] {
      EXPECT_TRUE(queue->isCurrent());
      ran.push_back(i);
      if (i % 3 == 0) throw i;
    }));
  }
  queue->suspend();
  operations.addOperations(all, false);
  EXPECT_TRUE(ran.empty());
  queue->resume();
  operations.addOperations({all[0]}, true);
  operations.addOperation(all[1]);
  expectDrained(queue);
  ASSERT_EQ(ran.size(), 22U);
  for (int i = 0; i < 20; ++i) EXPECT_EQ(ran[static_cast<std::size_t>(i)], i);
}

}  // namespace
}  // namespace skelda::platform
