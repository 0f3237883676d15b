#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"

#include <gtest/gtest.h>

#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Platform/Foundation/URLError.h"
#include "Tests/Analytics/Recorded.h"
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
  for (const auto least : {std::chrono::seconds(1), std::chrono::seconds(2)}) {
    const auto begin = Clock::now();
    const auto outcome = process("log");
    EXPECT_GE(Clock::now() - begin, least);
    ASSERT_FALSE(outcome.succeeded);
    EXPECT_TRUE(outcome.error->hasDomain(platform::urlErrorDomain()));
    EXPECT_EQ(outcome.error->code(), platform::kURLErrorNetworkConnectionLost);
  }
  EXPECT_TRUE(process("log").succeeded);
}

}  // namespace
}  // namespace skelda::testing
