#include <gtest/gtest.h>

#include "Tests/Analytics/Streaming/Core/FrameLogWriter/FrameLogWriterFixture.h"

namespace skelda::testing {
namespace {

using Logs = std::vector<std::string>;

/// A home in which a process has left a log.
class FrameLogRepair : public FrameLogWriterFixture {
 protected:
  void leave(std::string_view bytes) { writeFile(logPath(), bytes); }
  /// Starts a new process over the leftover and answers how its log was committed.
  Logs commitedAtStart(std::string_view leftover) {
    std::filesystem::remove_all(commitedFolder());
    leave(leftover);
    startNew();
    EXPECT_EQ(log(), "counter" + std::to_string(counter()));
    EXPECT_EQ(writer_->moduleState(), 3);
    return commited();
  }
  const std::string first_ =
      frame(*SkeldaStreamCounter::counterFrameWithCounter(1)) + frame(*eventAt(1));
};

TEST_F(FrameLogRepair, CutsATornTailAtWhateverByteItWasTorn) {
  const std::string whole = first_ + frame(*eventAt(2));
  for (std::size_t length = first_.size(); length < whole.size(); ++length) {
    ASSERT_EQ(commitedAtStart(whole.substr(0, length)), Logs{"counter1 e1 flush4"}) << length;
  }
  EXPECT_EQ(commitedAtStart(whole), Logs{"counter1 e1 e2 flush4"});
}

TEST_F(FrameLogRepair, KeepsTheLongestReadablePrefix) {
  // Eight of these drain the iterator's buffer of 1000 bytes exactly.
  const std::string exact = frame(*plainMessage(148, std::string(101, 'x')));
  ASSERT_EQ(exact.size(), 125U);
  std::string sixteen;
  std::string words;
  for (int i = 0; i < 16; ++i) sixteen += exact, addWord(words, "148");
  const std::string unknown = frame(*plainMessage(134)).replace(1, 1, 1, 'M');
  std::string version0 = frame(*plainMessage(148));
  version0[0] = 0;
  const std::string large = frame(*plainMessage(148, std::string(5000, 'x')));

  const std::pair<std::string, std::string> cases[] = {
      {"", "flush4"},
      {"garbage", "flush4"},
      {std::string(300, '\xff'), "flush4"},
      {sixteen, words + " flush4"},
      {sixteen + exact.substr(0, 60), words + " flush4"},
      {sixteen + unknown + exact, words + " flush4"},
      {exact + unknown + exact, "148 flush4"},
      {exact + large + exact + large.substr(0, 4000), "148 148 148 flush4"},
      {version0 + "sum?" + exact, "148 148 flush4"},
  };
  for (const auto& [leftover, expected] : cases) {
    EXPECT_EQ(commitedAtStart(leftover), Logs{expected}) << leftover.size();
  }
}

TEST_F(FrameLogRepair, CutsTheLogInPlaceWhereThereIsNoRoomForACopy) {
  const auto plan = std::make_shared<FaultPlan>();
  leave(first_ + "torn");
  makeWriter().setPlatformFileManager(std::make_shared<FaultyFileManager>(plan));
  plan->failKind("writeData", 1, {.error = ENOSPC});
  start();
  EXPECT_EQ(plan->faults(), 1U);
  EXPECT_EQ(commited(), Logs{"counter1 e1 flush4"});
}

TEST_F(FrameLogRepair, TriesALogThatCannotBeReadAgainAndThenSetsItAsideAsItIs) {
  for (const char* kind : {"openForReadingFile", "readDataOfLength", "availableDataWithError"}) {
    for (const bool forEver : {false, true}) {
      SCOPED_TRACE(kind);
      std::filesystem::remove_all(commitedFolder());
      const auto plan = std::make_shared<FaultPlan>();
      leave(first_ + "torn");
      makeWriter(nullptr, std::make_shared<FaultyStreamFileHandle>(plan));
      const auto previous = std::make_shared<RecordingStage>();
      writer_->registerPreviousStageComponent(previous);
      plan->failKind(kind, 1, {.times = forEver ? Fault::kForEver : 2});
      writer_->writePendingFiles();
      EXPECT_EQ(previous->states(1), std::vector<std::int32_t>{3});
      EXPECT_EQ(plan->faults(), forEver ? 9U : 2U);
      EXPECT_EQ(log(), "counter" + std::to_string(counter()));
      EXPECT_EQ(commited(), forEver ? Logs{} : Logs{"counter1 e1 flush4"});
      int aside = 0;
      for (const auto& entry : std::filesystem::directory_iterator(home_.storageFolder())) {
        if (!entry.path().string().starts_with(logPath() + ".unread_")) continue;
        EXPECT_EQ(readFile(entry.path().string()), first_ + "torn");
        std::filesystem::remove(entry.path());
        ++aside;
      }
      EXPECT_EQ(aside, forEver ? 1 : 0);
    }
  }
}

}  // namespace
}  // namespace skelda::testing
