#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"

#include <gtest/gtest.h>

#include "Tests/Analytics/Streaming/Core/FrameLogWriter/FrameLogWriterFixture.h"

namespace skelda::testing {
namespace {

using Logs = std::vector<std::string>;

class FrameLogWriter : public FrameLogWriterFixture {
 protected:
  void emptyHome() {
    std::filesystem::remove_all(home_.path());
    AgentHome::forget();
  }
};

TEST_F(FrameLogWriter, RollsOnEveryFlushAndKeepsTheCrashFlagOfItsStatus) {
  startNew();
  std::size_t logs = 0;
  for (const int status : {0, 1, 3, 4, 5, 6}) {
    for (const bool before : {false, true}) {
      setCrashFlag(before);
      send(eventAt(8));
      flush(status);
      ASSERT_EQ(commited().size(), ++logs);
      EXPECT_EQ(commited().back(),
                "counter" + std::to_string(logs) + " e8 flush" + std::to_string(status));
      EXPECT_EQ(log(), "counter" + std::to_string(logs + 1));
      EXPECT_EQ(crashFlag(), status == 3 || (status != 1 && before)) << status;
    }
  }
  flush(2);
  send(plainMessage(134, ""));
  send(plainMessage(77));
  EXPECT_EQ(commited().size(), logs) << "what makes no frame neither rolls nor is written";
  EXPECT_EQ(log(), "counter13");
}

TEST_F(FrameLogWriter, WritesAndSynchronisesEachFrameAndDoesNothingElse) {
  startNew();
  const auto plan = std::make_shared<FaultPlan>();
  const FaultyFileCalls counted(plan);
  for (int i = 0; i < 5; ++i) send(eventAt(i));
  EXPECT_EQ(plan->calls("write"), 5U);
  EXPECT_EQ(plan->calls("syncData"), 5U);
  EXPECT_EQ(plan->calls() - plan->calls("status"), 10U);
}

TEST_F(FrameLogWriter, FindsAFreeNameWhereTheTimeIsTaken) {
  // Stands for a log that was committed in the same microsecond.
  struct OneNameTaken : FaultyStreamFileManager {
    using FaultyStreamFileManager::FaultyStreamFileManager;
    bool isFilePresentAtPath(const Path& path) override {
      if (taken.empty() && path->find("commited_") != std::string::npos) taken = *path;
      return *path == taken || FaultyStreamFileManager::isFilePresentAtPath(path);
    }
    std::string taken;
  };
  const auto manager = std::make_shared<OneNameTaken>(std::make_shared<FaultPlan>());
  makeWriter(manager);
  start();
  flush(5);
  ASSERT_EQ(commitedPaths().size(), 1U);
  EXPECT_GT(commitedPaths()[0], manager->taken);
}

TEST_F(FrameLogWriter, GivesUpALogThatCannotBeCopied) {
  const auto plan = std::make_shared<FaultPlan>();
  makeWriter(std::make_shared<FaultyStreamFileManager>(plan));
  start();
  send(eventAt(1));
  plan->failKind("copyFileFrom");
  flush(3);
  EXPECT_EQ(log(), "counter2");
  EXPECT_EQ(commited(), Logs{});
}

TEST_F(FrameLogWriter, GoesOnWithANewLogWhereTheOldOneWasRemoved) {
  startNew();
  std::filesystem::remove(logPath());
  flush(5);
  send(eventAt(9));
  EXPECT_EQ(log(), "counter2 e9");
}

// Every call of the writer on its files fails once, in turn. What follows the fault is written, no
// log is torn, and only the roll whose copy failed may lose what was written before.
TEST_F(FrameLogWriter, WorksOnAfterAnyFileOperationFailed) {
  for (const bool inPlatform : {false, true}) {
    for (std::size_t call = 1;; ++call) {
      SCOPED_TRACE(::testing::Message() << "call " << call << ", platform " << inPlatform);
      emptyHome();
      const auto plan = std::make_shared<FaultPlan>();
      if (inPlatform) {
        makeWriter(std::make_shared<StreamFileManagerOnFaultyPlatform>(plan),
                   std::make_shared<StreamFileHandleOnFaultyPlatform>(plan));
      } else {
        makeWriter(std::make_shared<FaultyStreamFileManager>(plan),
                   std::make_shared<FaultyStreamFileHandle>(plan));
      }
      plan->failCall(call);
      start();
      send(eventAt(1));
      flush(5);
      send(eventAt(2));
      const bool struck = plan->faults() > 0;
      plan->clear();
      send(eventAt(3));
      flush(5);
      ASSERT_EQ(writer_->moduleState(), 3);
      ASSERT_FALSE(commited().empty());
      EXPECT_NE(commited().back().find("e3 flush5"), std::string::npos);
      for (const auto& words : commited()) EXPECT_EQ(words.find("torn"), std::string::npos);
      if (!struck) break;
    }
  }
}

TEST_F(FrameLogWriter, LosesNothingThatWasSynchronisedWhereverTheProcessDies) {
  for (std::size_t call = 1;; ++call) {
    SCOPED_TRACE(call);
    emptyHome();
    std::vector<std::string> durable;
    bool died = false;
    {
      const auto plan = std::make_shared<FaultPlan>();
      const FaultyFileCalls calls(plan);
      startNew();
      // From this call on nothing of the process reaches the disk any more.
      plan->failCall(call, {.times = Fault::kForEver});
      for (const int ms : {1, 2, 3, 4}) {
        send(eventAt(ms));
        if (plan->faults() == 0) durable.push_back("e" + std::to_string(ms));
        if (ms == 2) flush(3);
      }
      died = plan->faults() > 0;
      writer_.reset();
    }
    AgentHome::forget();
    startNew();
    std::string all;
    for (const auto& words : commited()) addWord(all, words);
    for (const auto& event : durable) EXPECT_NE(all.find(event), std::string::npos) << event;
    EXPECT_EQ(all.find("torn"), std::string::npos);
    if (!died) break;
  }
}

}  // namespace
}  // namespace skelda::testing
