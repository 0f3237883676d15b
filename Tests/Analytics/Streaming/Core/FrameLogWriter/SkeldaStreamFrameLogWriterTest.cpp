// What is in the logs, and what a start makes of the log that it finds.

#include <fmt/format.h>
#include <sys/resource.h>

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/Data Providers/ISkeldaNodeDataProvider.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/StorageReserve.h"
#include "Tests/Analytics/Streaming/Core/LogWords.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/LogCapture.h"

namespace skelda::testing {
namespace {

/// What a device lacks for a moment: a call fails so many times, on paths that hold a text.
struct Lack {
  const char* kind;
  int error;
  std::size_t times;
  const char* where;
};

using Logs = std::vector<std::string>;

/// A home with a writer in it, and its logs in words (see logWords).
class FrameLogWriter : public ::testing::Test {
 protected:
  using Writer = SkeldaStreamFrameLogWriter;

  /// A writer as a new process would have it.
  Writer& makeWriter(
      std::shared_ptr<ISkeldaStreamFileManager> manager = SkeldaStreamFileManager::fileManager()) {
    writer_ = Writer::fileWriterWithCurrentFrameLogFilePath(
        home_.storageFolder(), "log", commitedFolder(), "commited", std::move(manager),
        SkeldaStreamFileHandle::fileHandle(),
        SkeldaStreamMessageSerializer::streamMessageSerializer(),
        SkeldaStreamFrameDeserializer::streamFrameDeserializer(), {1}, {});
    writer_->setRetryDelays(10us, 10us);
    return *writer_;
  }
  /// Waits until it is ready, however often it has to try.
  void start() {
    const auto previous = std::make_shared<RecordingStage>();
    writer_->registerPreviousStageComponent(previous);
    writer_->writePendingFiles();
    EXPECT_EQ(previous->states(1), std::vector<std::int32_t>{3});
  }
  void startNew() {
    makeWriter();
    start();
  }
  void send(const Message& message) {
    writer_->streamMessage(message);
    settle(*writer_);
  }
  void flush(std::int32_t status) { send(SkeldaStreamFlush::streamFlushWithStatus(status)); }

  std::string logPath() const { return home_.storageFolder() + "/log"; }
  std::string commitedFolder() const { return home_.storageFolder() + "/CommitedFrameLogs"; }
  std::vector<std::string> commitedPaths() const { return logPaths(commitedFolder()); }
  std::string log() const { return logWords(readFile(logPath())); }
  /// The committed logs, oldest first, one text for each.
  std::vector<std::string> commited() const {
    std::vector<std::string> logs;
    for (const auto& path : commitedPaths()) logs.push_back(logWords(readFile(path)));
    return logs;
  }
  /// All logs, the open one behind the last bar.
  std::string allLogs() const {
    std::string logs;
    for (const auto& words : commited()) logs += words + " | ";
    return logs + log();
  }
  std::int64_t counter() const {
    return SkeldaKVStorage::sharedInstance()->integerForKey(std::string(Writer::kFrameCounterKey));
  }
  void setCrashFlag(bool flag) {
    SkeldaKVStorage::sharedInstance()->setBoolean(flag, std::string(Writer::kCrashFlagKey));
  }
  bool crashFlag() const {
    return SkeldaKVStorage::sharedInstance()->booleanForKey(std::string(Writer::kCrashFlagKey));
  }
  static std::string frame(const ISkeldaStreamMessage& message) {
    return SkeldaStreamMessageSerializer().frameFromStreamMessage(message)->string();
  }

  const FoldersInMemory inMemory_;
  AgentHome home_;
  std::shared_ptr<Writer> writer_;
};

TEST_F(FrameLogWriter, RollsOnEveryFlushAndKeepsTheCrashFlagOfItsStatus) {
  startNew();
  std::size_t logs = 0;
  std::atomic<std::size_t> told = 0;
  auto& center = NotificationCenter::defaultCenter();
  const auto token = center.addObserver(kSkeldaFrameLogWasCommitedNotification,
                                        [&](const Notification&) { ++told; });
  for (const int status : {0, 1, 3, 4, 5, 6}) {
    for (const bool before : {false, true}) {
      setCrashFlag(before);
      send(eventAt(8));
      flush(status);
      ASSERT_EQ(commited().size(), ++logs);
      EXPECT_EQ(told, logs);
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
  center.removeObserver(token);
}

TEST_F(FrameLogWriter, WritesAndSynchronisesEachFrameAndDoesNothingElse) {
  startNew();
  const FaultyFileCalls plan;
  for (int i = 0; i < 5; ++i) send(eventAt(i));
  EXPECT_EQ(plan->calls("write"), 5U);
  EXPECT_EQ(plan->calls("syncData"), 5U);
  EXPECT_EQ(plan->calls() - plan->calls("status"), 10U);
}

TEST_F(FrameLogWriter, AMessageThatComesAgainIsTheSameFrameAndAnotherOfItsTypeIsNot) {
  using FrameType = SkeldaStreamFrameTypeUtil;
  const std::int32_t type = *FrameType::frameTypesWithRole(FrameType::kSticky).begin();
  const auto serializer = SkeldaStreamMessageSerializer::streamMessageSerializer();
  startNew();
  std::string expected = readFile(logPath());
  auto first = plainMessage(type, R"({"n":1})");
  for (const auto& message : {first, first, plainMessage(type, R"({"n":2})"), first}) {
    send(message);
    expected += serializer->frameFromStreamMessage(*message)->string();
  }
  // Where one was that is gone another may lie.
  for (int i = 3; i < 20; ++i) {
    first = plainMessage(type, fmt::format(R"({{"n":{}}})", i));
    send(first);
    expected += serializer->frameFromStreamMessage(*first)->string();
  }
  EXPECT_EQ(readFile(logPath()), expected);
}

TEST_F(FrameLogWriter, FindsAFreeNameWhereTheTimeIsTaken) {
  // Stands for a log that was committed in the same microsecond.
  struct OneNameTaken : SkeldaStreamFileManager {
    bool isFilePresentAtPath(const Path& path) override {
      if (taken.empty() && path->find("commited_") != std::string::npos) taken = *path;
      return *path == taken || SkeldaStreamFileManager::isFilePresentAtPath(path);
    }
    std::string taken;
  };
  const auto manager = std::make_shared<OneNameTaken>();
  makeWriter(manager);
  start();
  flush(5);
  ASSERT_EQ(commitedPaths().size(), 1U);
  EXPECT_GT(commitedPaths()[0], manager->taken);
}

TEST_F(FrameLogWriter, TriesACopyThreeTimesBeforeItGivesTheLogUpWithALine) {
  const LogCapture log;
  SkeldaUtil::setLogLevel(1);
  startNew();
  const FaultyFileCalls plan(commitedFolder());
  for (const std::size_t times : {2U, 3U}) {
    for (std::size_t event = 1; event < times; ++event) send(eventAt(1));
    plan->failKind("renameNoReplace", 1, {.error = EIO, .times = times});
    flush(3);
  }
  EXPECT_EQ(plan->faults(), 5U);
  EXPECT_EQ(allLogs(), "counter1 e1 flush3 | counter3");
  EXPECT_EQ(log.count("4 frames are lost"), 1U);
}

TEST_F(FrameLogWriter, TheNextNumberIsOnDiskWhereTheStoreCouldBeWrittenTheThirdTime) {
  startNew();
  {
    const FaultyFileCalls plan(".storage");
    plan->failKind("rename", 1, {.error = ENOSPC, .times = 2});
    flush(5);
    EXPECT_EQ(plan->faults(), 2U);
  }
  AgentHome::forget();
  EXPECT_EQ(counter(), 2);
}

TEST_F(FrameLogWriter, GoesOnWhereSomebodyRemovesOrCutsTheLog) {
  startNew();
  std::filesystem::remove(logPath());
  flush(5);
  send(eventAt(1));
  EXPECT_EQ(log(), "counter2 e1");
  std::filesystem::resize_file(logPath(), 0);
  send(eventAt(2));
  EXPECT_EQ(log(), "e2");
}

// A device that lacks something for a moment: everything is in the logs, once and in order.
TEST_F(FrameLogWriter, LosesNothingWhileTheDeviceLacksSomething) {
  const Lack cases[] = {
      {"open", EMFILE, 2, ""},
      {"open", ENFILE, 2, "CommitedFrameLogs"},
      {"write", ENOSPC, 5, ""},
      {"write", EIO, 3, "/log"},
      {"write", ENOSPC, 2, ".skelda-tmp-"},
      {"renameNoReplace", EINTR, 20, ""},
      {"renameNoReplace", EIO, 2, ""},
      {"rename", EINTR, 20, ""},
      {"statusAt", EIO, 3, "/log"},
      {"statusAt", EIO, 2, ""},
      {"status", EIO, 2, "/log"},
      {"truncate", EIO, 2, "/log"},
      {"syncData", EIO, 4, "/log"},
      {"syncData", EIO, 2, ""},
      {"sync", EIO, 2, "CommitedFrameLogs"},
      {"copyRange", EIO, 2, ""},
      {"makeDirectory", ENOSPC, 2, ""},
      {"close", EIO, 2, ""},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(::testing::Message() << row.kind << " " << row.error << " " << row.where);
    home_.empty();
    startNew();
    const FaultyFileCalls plan(row.where);
    plan->failKind(row.kind, 1, {.error = row.error, .times = row.times});
    for (const int ms : {1, 2, 3}) {
      send(eventAt(ms));
      flush(5);
    }
    // By now the fault is over; what is still owed goes before this.
    plan->clear();
    send(eventAt(4));
    EXPECT_GT(plan->faults(), 0U);
    EXPECT_EQ(allLogs(),
              "counter1 e1 flush5 | counter2 e2 flush5 | counter3 e3 flush5 | counter4 e4");
  }
}

// For as long as it takes: the reserve is given up and taken anew at each roll.
TEST_F(FrameLogWriter, LosesNothingWhileThereAreNoDescriptors) {
  StorageReserve::take(SkeldaAgentFiles::reserveFile());
  startNew();
  struct ::rlimit before {};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const struct ::rlimit few { 128, before.rlim_max };
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  std::vector<int> taken;
  for (int fd = ::dup(0); fd >= 0; fd = ::dup(0)) taken.push_back(fd);
  std::string expected;
  for (int ms = 1; ms <= 5; ++ms) {
    send(eventAt(ms));
    flush(5);
    expected += fmt::format("counter{0} e{0} flush5 | ", ms);
  }
  EXPECT_LT(::dup(0), 0);
  for (const int fd : taken) ::close(fd);
  EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(allLogs(), expected + "counter6");
  StorageReserve::forget();
}

TEST_F(FrameLogWriter, LosesNothingWhicheverCallFails) {
  for (std::size_t call = 1;; ++call) {
    SCOPED_TRACE(call);
    home_.empty();
    const FaultyFileCalls plan;
    plan->failCall(call, {.error = EIO});
    startNew();
    send(eventAt(1));
    flush(5);
    send(eventAt(2));
    const bool struck = plan->faults() > 0;
    plan->clear();
    send(eventAt(3));
    EXPECT_EQ(allLogs(), "counter1 e1 flush5 | counter2 e2 e3");
    if (!struck) break;
  }
}

TEST_F(FrameLogWriter, SaysEachSynchronisationThatFailedAndGivesUpByNameWhatStaysUnwritten) {
  const LogCapture log;
  SkeldaUtil::setLogLevel(1);
  startNew();
  const FaultyFileCalls plan("/log");
  plan->failKind("syncData", 1, {.error = EIO, .times = 2});
  send(eventAt(1));
  send(eventAt(2));
  EXPECT_EQ(log.count("unable to synchronise frame log file"), 2U);
  plan->failAll("write", EIO);
  send(eventAt(3));
  flush(5);
  EXPECT_TRUE(becomes([&] { return log.count("given up, message = SkeldaStreamEvent") == 1; }));
  plan->clear();
  send(eventAt(4));
  EXPECT_EQ(allLogs(), "counter1 e1 e2 flush5 | counter2 e4") << "the flush stayed owed";
}

TEST_F(FrameLogWriter, LosesNothingThatWasSynchronisedWhereverTheProcessDies) {
  for (std::size_t call = 1;; ++call) {
    SCOPED_TRACE(call);
    home_.empty();
    std::vector<std::string> durable;
    bool died = false;
    {
      const FaultyFileCalls plan;
      // Tries again when the test is over: a dead process does not.
      makeWriter().setRetryDelays(1min, 1ns);
      writer_->writePendingFiles();
      settle(*writer_);
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

/// A home in which a process has left a log.
class FrameLogRepairTest : public FrameLogWriter {
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
  const Lack cases[] = {
      {"open", EMFILE, 2, "/log"},  {"read", EIO, 8, "/log"},   {"open", EMFILE, 12, ".storage"},
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
      {"a pipe", [&] { ASSERT_EQ(::mkfifo(logPath().c_str(), 0600), 0); }},
  };
  for (const auto& [what, make] : cases) {
    SCOPED_TRACE(what);
    home_.empty();
    make();
    const FaultyFileCalls plan("/log");
    plan->failAll("read", EIO);
    startNew();
    EXPECT_EQ(allLogs(), "counter1");
    const auto aside = setAsideOf(logPath());
    ASSERT_EQ(aside.size(), 1U);
    if (std::filesystem::is_regular_file(aside[0])) {
      EXPECT_EQ(readFile(aside[0]), first_ + "torn");
    }
  }
}

}  // namespace
}  // namespace skelda::testing
