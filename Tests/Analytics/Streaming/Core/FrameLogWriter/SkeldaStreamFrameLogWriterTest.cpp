// What is in the logs, and what a start makes of the log that it finds.

#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaStreamFrameLogWriter.h"
#include "Analytics/Streaming/Data Providers/ISkeldaNodeDataProvider.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/StorageReserve.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"
#include "Tests/Support/AgentHome.h"

namespace {

/// What a device lacks for a moment: a call fails so many times, on paths that hold a text.
using Lack = std::tuple<const char*, int, std::size_t, const char*>;

/// A home with a writer in it, and its logs in words (see logWords).
struct FrameLogWriter : testing::Test {
  using Writer = SkeldaStreamFrameLogWriter;

  using FileManager = SkeldaStreamFileManager;
  Writer& makeWriter(std::shared_ptr<FileManager> manager = FileManager::fileManager()) {
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
  std::string log() const { return logWords(readFile(logPath())); }
  /// The committed logs, oldest first, each before a bar.
  std::string commited() const {
    std::string logs;
    for (const auto& path : logPaths(commitedFolder())) logs += logWords(readFile(path)) + " | ";
    return logs;
  }
  std::string allLogs() const { return commited() + log(); }
  static SkeldaKVStorage& store() { return *SkeldaKVStorage::sharedInstance(); }
  static std::int64_t counter() { return store().integerForKey(kCounter); }
  static void setCrashFlag(bool flag) { store().setBoolean(flag, kCrash); }
  static bool crashFlag() { return store().booleanForKey(kCrash); }
  static std::string frame(const ISkeldaStreamMessage& message) {
    return SkeldaStreamMessageSerializer().frameFromStreamMessage(message)->string();
  }
  /// Leaves a log as if by an earlier process, starts a new one and answers what it committed.
  std::string commitedAtStart(std::string_view leftover) {
    std::filesystem::remove_all(commitedFolder());
    writeFile(logPath(), leftover);
    startNew();
    EXPECT_EQ(log(), "counter" + std::to_string(counter()));
    EXPECT_EQ(writer_->moduleState(), 3);
    return commited();
  }

  static inline const std::string kCounter{Writer::kFrameCounterKey}, kCrash{Writer::kCrashFlagKey};
  const std::string first_ = frame(SkeldaStreamCounter(1)) + frame(*eventAt(1));
  const FoldersInMemory inMemory_;
  AgentHome home_;
  std::shared_ptr<Writer> writer_;
};

TEST_F(FrameLogWriter, RollsOnEveryFlushAndKeepsTheCrashFlagOfItsStatus) {
  startNew();
  int logs = 0;
  std::atomic<int> told = 0;
  std::string expected;
  auto& center = NotificationCenter::defaultCenter();
  const auto token = center.addObserver(kSkeldaFrameLogWasCommitedNotification,
                                        [&](const Notification&) { ++told; });
  for (const int status : {0, 1, 3, 4, 5, 6}) {
    for (const bool before : {false, true}) {
      setCrashFlag(before);
      send(eventAt(8));
      flush(status);
      EXPECT_EQ(told, ++logs);
      expected += fmt::format("counter{} e8 flush{} | ", logs, status);
      EXPECT_EQ(allLogs(), expected + fmt::format("counter{}", logs + 1));
      EXPECT_EQ(crashFlag(), status == 3 || (status != 1 && before)) << status;
    }
  }
  flush(2);
  send(plainMessage(134, ""));
  send(plainMessage(77));
  EXPECT_EQ(allLogs(), expected + "counter13") << "what makes no frame rolls and writes nothing";
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
  startNew();
  std::string expected = readFile(logPath());
  const auto sendAnd = [&](const Message& message) {
    send(message);
    expected += frame(*message);
  };
  const auto first = plainMessage(type, R"({"n":1})"), second = plainMessage(type, R"({"n":2})");
  for (const auto& message : {first, first, second, first}) sendAnd(message);
  for (int i = 3; i < 20; ++i) sendAnd(plainMessage(type, fmt::format(R"({{"n":{}}})", i)));
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
  const auto paths = logPaths(commitedFolder());
  ASSERT_EQ(paths.size(), 1U);
  EXPECT_GT(paths[0], manager->taken);
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
  const FaultyFileCalls plan("rename", {.error = ENOSPC, .times = 2}, ".storage");
  flush(5);
  EXPECT_EQ(plan->faults(), 2U);
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

TEST_F(FrameLogWriter, LosesNothingWhileTheDeviceLacksSomething) {
  const Lack cases[] = {
      {"open", EMFILE, 2, ""},   {"write", EIO, 3, "/log"},    {"open", ENFILE, 2, "Commited"},
      {"write", ENOSPC, 5, ""},  {"status", EIO, 2, "/log"},   {"write", ENOSPC, 2, ".skelda-tmp-"},
      {"statusAt", EIO, 2, ""},  {"statusAt", EIO, 3, "/log"}, {"renameNoReplace", EINTR, 20, ""},
      {"rename", EINTR, 20, ""}, {"truncate", EIO, 2, "/log"}, {"renameNoReplace", EIO, 2, ""},
      {"syncData", EIO, 2, ""},  {"syncData", EIO, 4, "/log"}, {"sync", EIO, 2, "Commited"},
      {"close", EIO, 2, ""},     {"copyRange", EIO, 2, ""},    {"makeDirectory", ENOSPC, 2, ""},
  };
  for (const auto& [kind, error, times, where] : cases) {
    SCOPED_TRACE(fmt::format("{} {} {}", kind, error, where));
    home_.empty();
    startNew();
    const FaultyFileCalls plan(kind, {.error = error, .times = times}, where);
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
    Texts durable;
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
    for (const auto& event : durable) EXPECT_NE(commited().find(event), std::string::npos) << event;
    EXPECT_EQ(commited().find("torn"), std::string::npos);
    if (!died) break;
  }
}

using FrameLogRepairTest = FrameLogWriter;

TEST_F(FrameLogRepairTest, CutsATornTailAtWhateverByteItWasTorn) {
  const std::string whole = first_ + frame(*eventAt(2));
  for (std::size_t length = first_.size(); length < whole.size(); ++length)
    ASSERT_EQ(commitedAtStart(whole.substr(0, length)), "counter1 e1 flush4 | ") << length;
  EXPECT_EQ(commitedAtStart(whole), "counter1 e1 e2 flush4 | ");
}

TEST_F(FrameLogRepairTest, KeepsTheLongestReadablePrefix) {
  const auto object = [](std::size_t length) {
    return "{\"x\":\"" + std::string(length - 8, 'x') + "\"}";
  };
  // Eight of these drain the iterator's buffer of 1000 bytes exactly.
  const std::string exact = frame(*plainMessage(148, object(101)));
  ASSERT_EQ(exact.size(), 125U);
  std::string sixteen;
  for (int i = 0; i < 16; ++i) sixteen += exact;
  const std::string unknown = frame(*plainMessage(134)).replace(1, 1, 1, 'M');
  const std::string version0 = frame(*plainMessage(148)).replace(0, 1, 1, '\0');
  const std::string large = frame(*plainMessage(148, object(5000))), torn = large.substr(0, 4000);
  const std::string zeros = exact.substr(0, 24) + std::string(101, '\0');
  const std::string array = frame(*plainMessage(148, "[1]")), ones(300, '\xff');
  // And how many frames are kept.
  const std::pair<std::string, int> cases[] = {
      {"garbage", 0},     {version0 + "sum?" + exact, 2},
      {sixteen, 16},      {exact + large + exact + torn, 3},
      {exact + zeros, 1}, {exact + unknown + exact, 1},
      {exact + array, 1}, {sixteen + unknown + exact, 16},
      {zeros + exact, 0}, {sixteen + exact.substr(0, 60), 16},
      {ones, 0},
  };
  for (const auto& [leftover, kept] : cases) {
    std::string expected;
    for (int i = 0; i < kept; ++i) expected += "148 ";
    EXPECT_EQ(commitedAtStart(leftover), expected + "flush4 | ") << leftover.size();
  }
  EXPECT_EQ(commitedAtStart(""), "") << "a log of no bytes is no crash";
}

TEST_F(FrameLogRepairTest, CutsTheLogInPlaceWhereThereIsNoRoomForACopy) {
  const FaultyFileCalls plan("write", {.error = ENOSPC}, ".skelda-tmp-");
  EXPECT_EQ(commitedAtStart(first_ + "torn"), "counter1 e1 flush4 | ");
  EXPECT_EQ(plan->faults(), 1U);
}

// Nothing is begun while what the last run left, or the store, cannot be read or closed.
TEST_F(FrameLogRepairTest, WaitsForWhatCannotBeReadOrWrittenJustNow) {
  const Lack cases[] = {
      {"open", EMFILE, 2, "/log"},  {"read", EIO, 8, "/log"},   {"open", EMFILE, 12, ".storage"},
      {"read", EIO, 3, ".storage"}, {"open", EMFILE, 3, ""},    {"statusAt", EIO, 1, "/log"},
      {"write", ENOSPC, 2, "/log"}, {"status", EIO, 3, "/log"}, {"write", EIO, 2, ".skelda-tmp-"}};
  for (const auto& [kind, error, times, where] : cases) {
    SCOPED_TRACE(fmt::format("{} {} {}", kind, error, where));
    home_.empty();
    startNew();
    setCrashFlag(true);
    send(eventAt(1));
    EXPECT_TRUE(crashFlag());
    AgentHome::forget();
    const FaultyFileCalls plan(kind, {.error = error, .times = times}, where);
    startNew();
    EXPECT_EQ(plan->faults(), times);
    send(eventAt(2));
    EXPECT_EQ(allLogs(), "counter1 e1 flush4 | counter2 e2");
    EXPECT_TRUE(crashFlag());
  }
}

TEST_F(FrameLogRepairTest, SetsALogAsideThatStaysUnreadableOrIsNone) {
  const std::function<void()> cases[] = {
      [&] { writeFile(logPath(), first_ + "torn"); },
      [&] { std::filesystem::create_directories(logPath() + "/inside"); },
      [&] { ASSERT_EQ(::mkfifo(logPath().c_str(), 0600), 0); }};
  for (const auto& make : cases) {
    SCOPED_TRACE(&make - cases);
    home_.empty();
    make();
    const FaultyFileCalls plan("read", Fault::always(EIO), "/log");
    startNew();
    EXPECT_EQ(allLogs(), "counter1");
    const auto aside = setAsideOf(logPath());
    ASSERT_EQ(aside.size(), 1U);
    EXPECT_TRUE(&make != cases || readFile(aside[0]) == first_ + "torn");
  }
}

}  // namespace
