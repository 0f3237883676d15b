#include "Platform/Dispatch/ReadSource.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include "Platform/Dispatch/Wanted.h"
#include "Tests/Platform/Dispatch/Waiting.h"

namespace skelda::platform {
namespace {

TEST(ReadSourceTest, AHangUpIsToldOnceItIsResumedAndNothingAfterTheCancel) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
  const QueueRef queue = Queue::serial("reads");
  const auto source = ReadSource::make(ends[0], queue);
  EXPECT_FALSE(Wanted::any()) << "nothing was refused";
  std::atomic<int> told{0};
  std::atomic<int> cancelled{0};
  Happening hungUp;
  source->setEventHandler([&] {
    if (++told == 1) hungUp.happen();
    source->cancel();
  });
  source->setCancelHandler([&] { ++cancelled; });
  close(ends[1]);
  EXPECT_FALSE(Happening().cameInTime(std::chrono::milliseconds(10)));
  expectDrained(queue);
  EXPECT_EQ(told, 0);
  EXPECT_FALSE(Wanted::any()) << "nobody goes on asking for what is there";
  source->resume();
  EXPECT_TRUE(hungUp.cameInTime());
  source->cancel();
  expectDrained(queue);
  EXPECT_EQ(told, 1);
  EXPECT_EQ(cancelled, 1);
  close(ends[0]);
}

}  // namespace
}  // namespace skelda::platform
