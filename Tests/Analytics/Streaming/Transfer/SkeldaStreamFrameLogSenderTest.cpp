#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Platform/Foundation/URLError.h"
#include "Tests/Support/Recorded.h"
#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {
namespace {

class FakeDataSender : public ISkeldaFrameLogDataSender {
 public:
  bool sendFrameLogData(platform::Data data) override {
    if (failures > 0) {
      --failures;
      return false;
    }
    sent.push_back(data.string());
    return true;
  }
  int failures = 0;
  std::vector<std::string> sent;
};

struct Outcome {
  std::string name;
  bool succeeded;
  platform::ErrorRef error;
};

class Outcomes : public ISkeldaStreamFileReaderDelegate, public Recorded<Outcome> {
 public:
  void processingCompleteForFile(const std::string& name) override { add({name, true, nullptr}); }
  void processingFailedForFile(const std::string& name, platform::ErrorRef with) override {
    add({name, false, std::move(with)});
  }
};

class SkeldaStreamFrameLogSenderTest : public ::testing::Test {
 protected:
  SkeldaStreamFrameLogSenderTest() { sender_->setDelegate(outcomes_); }
  Outcome process(const std::string& name) {
    const std::size_t before = outcomes_->size();
    sender_->processFile(name, folder_.path());
    const auto outcomes = outcomes_->wait(before + 1);
    EXPECT_EQ(outcomes.size(), before + 1);
    EXPECT_EQ(outcomes.back().name, name);
    return outcomes.back();
  }

  static bool isLostConnection(const Outcome& outcome) {
    return !outcome.succeeded && outcome.error->hasDomain(platform::urlErrorDomain()) &&
           outcome.error->code() == platform::kURLErrorNetworkConnectionLost;
  }

  TemporaryDirectory folder_;
  std::shared_ptr<FakeDataSender> dataSender_ = std::make_shared<FakeDataSender>();
  std::shared_ptr<Outcomes> outcomes_ = std::make_shared<Outcomes>();
  std::shared_ptr<SkeldaStreamFrameLogSender> sender_ =
      SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(SkeldaStreamFileHandle::fileHandle(),
                                                               dataSender_);
};

TEST_F(SkeldaStreamFrameLogSenderTest, ReportsWhatItCannotRead) {
  const auto missing = process("missing");
  ASSERT_NE(missing.error, nullptr);
  EXPECT_EQ(missing.error->code(), 5);
  writeFile(folder_ / "empty", "");
  const auto empty = process("empty");
  EXPECT_FALSE(empty.succeeded);
  EXPECT_EQ(empty.error, nullptr);
  std::filesystem::create_directory(folder_ / "folder");
  const auto unreadable = process("folder");
  EXPECT_FALSE(unreadable.succeeded);
  EXPECT_NE(unreadable.error, nullptr);
  EXPECT_TRUE(dataSender_->sent.empty());
}

TEST_F(SkeldaStreamFrameLogSenderTest,
       WhatCannotBeStoredIsALostConnectionAfterALongerAndLongerWait) {
  using Clock = std::chrono::steady_clock;
  writeFile(folder_ / "log", "bytes");
  dataSender_->failures = 2;
  for (const auto least : {std::chrono::milliseconds(50), std::chrono::milliseconds(100)}) {
    const auto begin = Clock::now();
    const auto outcome = process("log");
    EXPECT_GE(Clock::now() - begin, least);
    EXPECT_TRUE(isLostConnection(outcome));
  }
  EXPECT_TRUE(process("log").succeeded);
}

TEST_F(SkeldaStreamFrameLogSenderTest, ALogThatCannotBeReadJustNowIsALostConnection) {
  sender_ = SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
      SkeldaStreamFileHandle::fileHandle(), dataSender_,
      platform::RetryDelay(std::chrono::milliseconds(1), std::chrono::milliseconds(8)));
  sender_->setDelegate(outcomes_);
  writeFile(folder_ / "log", "bytes");
  const struct {
    const char* call;
    int error;
    int lostConnections;  // of eight tries, before it is a failure like any other
  } cases[] = {{"open", EMFILE, 8}, {"open", ENFILE, 8}, {"open", ENOMEM, 8},
               {"open", EACCES, 3}, {"read", EIO, 3},    {"open", ENXIO, 0}};
  for (const auto& one : cases) {
    const auto plan = std::make_shared<FaultPlan>();
    FaultyFileCalls calls(plan);
    plan->failKind(one.call, 1, {.error = one.error, .times = Fault::kForEver});
    int lost = 0;
    for (int tries = 0; tries < 8; ++tries) lost += isLostConnection(process("log")) ? 1 : 0;
    EXPECT_EQ(lost, one.lostConnections) << one.call << " " << one.error;
    plan->clear();
    EXPECT_TRUE(process("log").succeeded);
  }
  EXPECT_EQ(dataSender_->sent.size(), std::size(cases));
}

}  // namespace
}  // namespace skelda::testing
