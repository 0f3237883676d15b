#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"

#include <gtest/gtest.h>

#include "Analytics/Utils/SkeldaStreamErrorConstants.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/Foundation/URLError.h"
#include "Tests/Support/LoopbackServer.h"
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

class Outcomes : public ISkeldaStreamFileReaderDelegate {
 public:
  void processingCompleteForFile(const std::string& fileName) override {
    tell(fileName, true, nullptr);
  }
  void processingFailedForFile(const std::string& fileName, platform::ErrorRef with) override {
    tell(fileName, false, std::move(with));
  }
  bool waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return names.size() >= count; });
  }
  std::vector<std::string> names;
  bool succeeded = false;
  platform::ErrorRef error;

 private:
  void tell(const std::string& name, bool success, platform::ErrorRef with) {
    std::lock_guard lock(mutex_);
    names.push_back(name);
    succeeded = success;
    error = std::move(with);
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
};

class SkeldaStreamFrameLogSenderTest : public ::testing::Test {
 protected:
  SkeldaStreamFrameLogSenderTest() { make(); }
  void make() {
    sender_ = SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
        SkeldaStreamFileHandle::fileHandle(), dataSender_);
    sender_->setDelegate(outcomes_);
  }
  void process(const std::string& name) {
    const std::size_t before = outcomes_->names.size();
    sender_->processFile(name, folder_.path());
    ASSERT_TRUE(outcomes_->waitFor(before + 1));
    EXPECT_EQ(outcomes_->names.back(), name);
  }

  TemporaryDirectory folder_;
  std::shared_ptr<FakeDataSender> dataSender_ = std::make_shared<FakeDataSender>();
  std::shared_ptr<Outcomes> outcomes_ = std::make_shared<Outcomes>();
  std::shared_ptr<SkeldaStreamFrameLogSender> sender_;
};

TEST_F(SkeldaStreamFrameLogSenderTest, GivesAWholeFileToTheDataSender) {
  const std::string bytes(300'000, '\x81');
  writeFile(folder_ / "log", bytes);
  process("log");
  EXPECT_TRUE(outcomes_->succeeded);
  EXPECT_EQ(dataSender_->sent, std::vector{bytes});
}

TEST_F(SkeldaStreamFrameLogSenderTest, ReportsWhatItCannotRead) {
  process("missing");
  ASSERT_NE(outcomes_->error, nullptr);
  EXPECT_EQ(outcomes_->error->code(), 5);
  writeFile(folder_ / "empty", "");
  process("empty");
  EXPECT_FALSE(outcomes_->succeeded);
  EXPECT_EQ(outcomes_->error, nullptr);
  std::filesystem::create_directory(folder_ / "folder");
  process("folder");
  EXPECT_FALSE(outcomes_->succeeded);
  ASSERT_NE(outcomes_->error, nullptr);
  EXPECT_TRUE(dataSender_->sent.empty());
}

TEST_F(SkeldaStreamFrameLogSenderTest,
       WhatCannotBeStoredIsALostConnectionAfterALongerAndLongerWait) {
  using Clock = std::chrono::steady_clock;
  writeFile(folder_ / "log", "bytes");
  dataSender_->failures = 2;
  for (const auto least : {std::chrono::seconds(1), std::chrono::seconds(2)}) {
    const auto begin = Clock::now();
    process("log");
    EXPECT_GE(Clock::now() - begin, least);
    EXPECT_FALSE(outcomes_->succeeded);
    EXPECT_TRUE(outcomes_->error->hasDomain(platform::urlErrorDomain()));
    EXPECT_EQ(outcomes_->error->code(), platform::kURLErrorNetworkConnectionLost);
  }
  process("log");
  EXPECT_TRUE(outcomes_->succeeded);
}

TEST_F(SkeldaStreamFrameLogSenderTest, ATestApplicationSeesEveryLogThatIsSent) {
  class Observer : public platform::Object, public ISkeldaStreamingDataObserver {
   public:
    std::string_view className() const noexcept override { return "SkeldaStreamingObserver"; }
    void frameLogFileDidUpdate(const std::string& path) override { seen.push_back(path); }
    std::vector<std::string> seen;
  };
  const auto observer = std::make_shared<Observer>();
  platform::ClassRegistry::shared().registerClass(
      {"SkeldaStreamingObserver", {}, {}, [observer] { return observer; }});
  make();
  process("log");
  EXPECT_EQ(observer->seen, std::vector<std::string>{folder_ / "log"});
  platform::ClassRegistry::shared().registerClass({"SkeldaStreamingObserver", {}, {}, nullptr});
}

}  // namespace
}  // namespace skelda::testing
