#include "Platform/Dispatch/ReadSource.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>

#include "Tests/Platform/Dispatch/Waiting.h"

namespace skelda::platform {
namespace {

class ReadSourceTest : public testing::Test {
 protected:
  ReadSourceTest() {
    EXPECT_EQ(pipe2(ends_.data(), O_CLOEXEC | O_NONBLOCK), 0);
    source_ = ReadSource::make(ends_[0], queue_);
  }
  ~ReadSourceTest() override {
    source_->cancel();
    expectDrained(queue_);
    for (const int end : ends_) close(end);
  }

  std::array<int, 2> ends_{};
  QueueRef queue_ = Queue::serial("reads");
  std::shared_ptr<ReadSource> source_;
};

TEST_F(ReadSourceTest, AHangUpIsToldOnceItIsResumedAndNothingAfterTheCancel) {
  std::atomic<int> told{0};
  std::atomic<int> cancelled{0};
  Happening hungUp;
  source_->setEventHandler([&] {
    if (++told == 1) hungUp.happen();
    source_->cancel();
  });
  source_->setCancelHandler([&] { ++cancelled; });
  close(ends_[1]);
  ends_[1] = -1;
  EXPECT_FALSE(Happening().cameInTime(std::chrono::milliseconds(10)));
  expectDrained(queue_);
  EXPECT_EQ(told, 0);
  source_->resume();
  EXPECT_TRUE(hungUp.cameInTime());
  source_->cancel();
  expectDrained(queue_);
  EXPECT_EQ(told, 1);
  EXPECT_EQ(cancelled, 1);
}

}  // namespace
}  // namespace skelda::platform
