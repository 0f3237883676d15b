#include <sys/stat.h>

#include <functional>

#include "Tests/Analytics/Streaming/Core/FrameLogWriter/FrameLogWriterFixture.h"

namespace skelda::testing {
namespace {

using Logs = std::vector<std::string>;

/// A home in which a process has left a log.
class FrameLogRepairTest : public FrameLogWriterFixture {
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
  /// A payload of that length.
  static std::string object(std::size_t length) {
    return "{\"x\":\"" + std::string(length - 8, 'x') + "\"}";
  }
  const std::string first_ =
      frame(*SkeldaStreamCounter::counterFrameWithCounter(1)) + frame(*eventAt(1));
};

TEST_F(FrameLogRepairTest, CutsATornTailAtWhateverByteItWasTorn) {
  const std::string whole = first_ + frame(*eventAt(2));
  for (std::size_t length = first_.size(); length < whole.size(); ++length) {
    ASSERT_EQ(commitedAtStart(whole.substr(0, length)), Logs{"counter1 e1 flush4"}) << length;
  }
  EXPECT_EQ(commitedAtStart(whole), Logs{"counter1 e1 e2 flush4"});
}

TEST_F(FrameLogRepairTest, KeepsTheLongestReadablePrefix) {
  // Eight of these drain the iterator's buffer of 1000 bytes exactly.
  const std::string exact = frame(*plainMessage(148, object(101)));
  ASSERT_EQ(exact.size(), 125U);
  std::string sixteen;
  std::string words;
  for (int i = 0; i < 16; ++i) sixteen += exact, addWord(words, "148");
  const std::string unknown = frame(*plainMessage(134)).replace(1, 1, 1, 'M');
  std::string version0 = frame(*plainMessage(148));
  version0[0] = 0;
  const std::string large = frame(*plainMessage(148, object(5000)));

  std::string zeros = exact;
  std::fill(zeros.end() - 101, zeros.end(), '\0');
  const std::string array = frame(*plainMessage(148, "[1]"));

  const std::pair<std::string, std::string> cases[] = {
      {exact + zeros, "148 flush4"},
      {exact + array, "148 flush4"},
      {zeros + exact, "flush4"},
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

TEST_F(FrameLogRepairTest, ALogOfNoBytesIsNoCrash) {
  EXPECT_EQ(commitedAtStart(""), Logs{});
}

TEST_F(FrameLogRepairTest, CutsTheLogInPlaceWhereThereIsNoRoomForACopy) {
  leave(first_ + "torn");
  const FaultyFileCalls plan(".skelda-tmp-");
  plan->failKind("write", 1, {.error = ENOSPC});
  startNew();
  EXPECT_EQ(plan->faults(), 1U);
  EXPECT_EQ(commited(), Logs{"counter1 e1 flush4"});
}

// Nothing is begun while what the last run left, or the store, cannot be read or closed.
TEST_F(FrameLogRepairTest, WaitsForWhatCannotBeReadOrWrittenJustNow) {
  const struct {
    const char* kind;
    int error;
    std::size_t times;
    const char* where;
  } cases[] = {
      {"open", EMFILE, 2, "/log"},  {"read", EIO, 2, "/log"},   {"open", EMFILE, 12, ".storage"},
      {"read", EIO, 3, ".storage"}, {"open", EMFILE, 3, ""},    {"statusAt", EIO, 1, "/log"},
      {"write", ENOSPC, 2, "/log"}, {"status", EIO, 3, "/log"}, {"write", EIO, 2, ".skelda-tmp-"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(::testing::Message() << row.kind << " " << row.error << " " << row.where);
    home_.empty();
    startNew();
    setCrashFlag(true);
    send(eventAt(1));
    EXPECT_TRUE(crashFlag());
    AgentHome::forget();
    const FaultyFileCalls plan(row.where);
    plan->failKind(row.kind, 1, {.error = row.error, .times = row.times});
    startNew();
    EXPECT_EQ(plan->faults(), row.times);
    send(eventAt(2));
    EXPECT_EQ(allLogs(), "counter1 e1 flush4 | counter2 e2");
    EXPECT_TRUE(crashFlag());
  }
}

TEST_F(FrameLogRepairTest, SetsALogAsideThatStaysUnreadableOrIsNone) {
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"unreadable", [&] { leave(first_ + "torn"); }},
      {"a folder", [&] { std::filesystem::create_directories(logPath() + "/inside"); }},
      {"a pipe",
       [&] {
         leave("");
         std::filesystem::remove(logPath());
         ASSERT_EQ(::mkfifo(logPath().c_str(), 0600), 0);
       }},
  };
  for (const auto& [what, make] : cases) {
    SCOPED_TRACE(what);
    home_.empty();
    make();
    const FaultyFileCalls plan("/log");
    plan->failAll("read", EIO);
    startNew();
    EXPECT_EQ(allLogs(), "counter1");
    int aside = 0;
    for (const auto& entry : std::filesystem::directory_iterator(home_.storageFolder())) {
      if (!entry.path().string().starts_with(logPath() + ".unread_")) continue;
      ++aside;
      if (entry.is_regular_file()) {
        EXPECT_EQ(readFile(entry.path().string()), first_ + "torn");
      }
    }
    EXPECT_EQ(aside, 1);
  }
}

}  // namespace
}  // namespace skelda::testing
