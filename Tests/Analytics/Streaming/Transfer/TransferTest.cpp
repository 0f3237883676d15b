// From the folder of committed logs to the data sender.

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/Data Providers/SkeldaNodeDataProvider.h"
#include "Analytics/Streaming/Transfer/SkeldaLocalTransferAgent.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamTransferManager.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Tests/Analytics/Networking/DataSender/SenderFixture.h"
#include "Tests/Analytics/Streaming/Transfer/TransferFakes.h"

namespace skelda::testing {
namespace {

using Names = std::vector<std::string>;

class SkeldaStreamTransferManagerTest : public ::testing::Test {
 protected:
  ~SkeldaStreamTransferManagerTest() override { EXPECT_EQ(swallowedExceptions(), swallowed_); }

  void make(Dictionary config = {}) {
    manager_ = SkeldaStreamTransferManager::transferManagerWithConfig(std::move(config), monitor_,
                                                                      "/logs", folder_, agent_);
    manager_->startup(nullptr);
    settle();
  }
  void makeWithOneUpload() { make({{kSkeldaStreamConfigOptionMaxFileUploadCount, 1}}); }
  /// Until the manager has nothing left to do.
  void settle() { testing::settle(*manager_); }
  void put(int count) {
    for (int i = 1; i <= count; ++i) folder_->names.insert("log" + std::to_string(i));
  }
  void folderChanged() {
    monitor_->tell(0);
    settle();
  }
  void complete(const std::string& name, ErrorRef error = nullptr) {
    manager_->didCompleteTransfer(name, std::move(error));
    settle();
  }
  SkeldaFileStateRef record(const std::string& name) {
    return manager_->fileUploadStatusDictionary()[name];
  }
  static std::uint64_t removed(SkeldaLogRemoval reason) {
    return SkeldaAccounting::page().logsRemoved[static_cast<std::size_t>(reason)];
  }
  static ErrorRef otherError() {
    return std::make_shared<const Error>(makeErrorDomain("other"), 0);
  }

  const std::uint64_t swallowed_ = swallowedExceptions();
  std::shared_ptr<FakeMonitor> monitor_ = std::make_shared<FakeMonitor>();
  std::shared_ptr<FakeFolder> folder_ = std::make_shared<FakeFolder>();
  std::shared_ptr<FakeAgent> agent_ = std::make_shared<FakeAgent>();
  std::shared_ptr<SkeldaStreamTransferManager> manager_;
};

TEST_F(SkeldaStreamTransferManagerTest, WhatIsInTheFolderAtStartIsSentOldestFirst) {
  folder_->names = {"log10", "log9", ".log2", "log9b"};
  makeWithOneUpload();
  EXPECT_EQ(agent_->started, Names{".log2"});
  EXPECT_EQ(record(".log2")->fileState(), 1u);
  for (const char* next : {".log2", "log9", "log9b"}) complete(next);
  EXPECT_EQ(agent_->started, (Names{".log2", "log9", "log9b", "log10"}));
  EXPECT_EQ(folder_->removed, (Names{".log2", "log9", "log9b"}));
  EXPECT_EQ(monitor_->announced, folder_->removed) << "or it would look for what it knows";
  complete("log10");
  EXPECT_TRUE(manager_->fileUploadStatusDictionary().empty());
  EXPECT_EQ(manager_->currentUploadCount(), 0);
}

TEST_F(SkeldaStreamTransferManagerTest, OrdersNamesByTheirNumbers) {
  const char* ordered[] = {"",   ".a",    "a",     "a1",  "a01bc3", "a1bc4",
                           "a2", "a2b10", "a2b11", "a10", "a010b",  "a18446744073709551616",
                           "b"};
  for (std::size_t i = 0; i < std::size(ordered); ++i) {
    for (std::size_t j = 0; j < std::size(ordered); ++j) {
      EXPECT_EQ(SkeldaStreamTransferManager::isOrderedBefore(ordered[i], ordered[j]), i < j)
          << ordered[i] << " " << ordered[j];
    }
  }
  EXPECT_NE(SkeldaStreamTransferManager::isOrderedBefore("a1", "a01"),
            SkeldaStreamTransferManager::isOrderedBefore("a01", "a1"));
}

TEST_F(SkeldaStreamTransferManagerTest, AFolderOverItsLimitLosesItsOldestFiles) {
  for (const auto& [files, gone] : {std::pair{4, 0}, {5, 2}, {10, 7}}) {
    folder_ = std::make_shared<FakeFolder>();
    agent_ = std::make_shared<FakeAgent>();
    put(files);
    const std::uint64_t before = removed(SkeldaLogRemoval::folderFull);
    makeWithOneUpload();
    EXPECT_EQ(removed(SkeldaLogRemoval::folderFull), before + static_cast<unsigned>(gone));
    Names expected;
    for (int i = 1; i <= gone; ++i) expected.push_back("log" + std::to_string(i));
    EXPECT_EQ(folder_->removed, expected);
    EXPECT_EQ(agent_->started, Names{"log" + std::to_string(gone + 1)});
  }
}

TEST_F(SkeldaStreamTransferManagerTest, AFileUnderWayIsNotDeletedForTheLimit) {
  put(1);
  makeWithOneUpload();
  put(5);
  folderChanged();
  EXPECT_EQ(folder_->removed, (Names{"log2", "log3"}));
  complete("log1");
  EXPECT_EQ(agent_->started, (Names{"log1", "log4"}));
}

TEST_F(SkeldaStreamTransferManagerTest, BeingOfflineCostsNoAttemptAndFreesThePlace) {
  put(2);
  makeWithOneUpload();
  for (int i = 0; i < 5; ++i) {
    const auto code = i % 2 == 0 ? kURLErrorNotConnectedToInternet : kURLErrorNetworkConnectionLost;
    complete("log1", urlError(code));
    EXPECT_EQ(record("log1")->fileUploadRetryCounter(), 0);
    EXPECT_EQ(record("log1")->fileState(), 1u) << "and it is under way again";
    EXPECT_EQ(manager_->currentUploadCount(), 1);
  }
  EXPECT_EQ(agent_->started.size(), 6u);
}

TEST_F(SkeldaStreamTransferManagerTest, TheThirdFailureDeletesTheFileUnsent) {
  put(2);
  makeWithOneUpload();
  // The same text and code in another domain object is not the same error.
  const auto lookalike = std::make_shared<const Error>(makeErrorDomain(urlErrorDomain()->c_str()),
                                                       kURLErrorNotConnectedToInternet);
  const std::uint64_t before = removed(SkeldaLogRemoval::thirdFailedTry);
  for (const auto& error : {lookalike, otherError(), urlError(-1001)}) {
    EXPECT_TRUE(folder_->removed.empty());
    complete("log1", error);
  }
  EXPECT_EQ(removed(SkeldaLogRemoval::thirdFailedTry), before + 1);
  EXPECT_EQ(folder_->removed, Names{"log1"});
  EXPECT_EQ(agent_->started, (Names{"log1", "log1", "log1", "log2"}));
}

TEST_F(SkeldaStreamTransferManagerTest, AFileThatCannotBeDeletedEndsInErrorAndIsNotSentAgain) {
  put(1);
  folder_->undeletable.insert("log1");
  makeWithOneUpload();
  complete("log1");
  for (const unsigned state : {5u, 5u, 6u}) {
    EXPECT_EQ(record("log1")->fileState(), 5u);
    folderChanged();
    EXPECT_EQ(record("log1")->fileState(), state);
  }
  EXPECT_EQ(agent_->started, Names{"log1"});
  EXPECT_EQ(manager_->currentUploadCount(), 0);
  // It goes when the folder is over its limit.
  folder_->undeletable.clear();
  folderChanged();
  EXPECT_TRUE(folder_->removed.empty());
  put(5);
  folderChanged();
  EXPECT_EQ(folder_->removed, (Names{"log1", "log2"}));
}

TEST_F(SkeldaStreamTransferManagerTest, AVanishedFileIsCancelledAndItsPlaceGivenOn) {
  put(2);
  makeWithOneUpload();
  folder_->names.erase("log1");
  folderChanged();
  EXPECT_EQ(agent_->cancelled, Names{"log1"});
  EXPECT_EQ(agent_->started, (Names{"log1", "log2"}));
  complete("log1");
  EXPECT_EQ(manager_->currentUploadCount(), 1) << "its late end changes nothing";
  complete("log2");
  EXPECT_EQ(folder_->removed, Names{"log2"});
}

TEST_F(SkeldaStreamTransferManagerTest, AFileThatTheAgentGaveUpDoesNotHoldItsPlace) {
  put(2);
  makeWithOneUpload();
  record("log1")->setFileState(kSkeldaFileStateError);
  manager_->didAbandonTransfer();
  settle();
  EXPECT_EQ(agent_->started, (Names{"log1", "log2"}));
  EXPECT_EQ(folder_->removed, Names{}) << "it stays where it is";
}

TEST_F(SkeldaStreamTransferManagerTest, ACompletionOfAnUnknownNameStillRunsAPass) {
  makeWithOneUpload();
  put(1);
  folder_->unlistable = 1;
  folderChanged();
  EXPECT_TRUE(manager_->fileUploadStatusDictionary().empty());
  monitor_->tell(1);  // no change that matters
  settle();
  EXPECT_TRUE(agent_->started.empty());
  folderChanged();
  record("log1")->setFileState(kSkeldaFileStateWaiting);
  complete("unknown");
  EXPECT_EQ(agent_->started, (Names{"log1", "log1"}));
}

TEST_F(SkeldaStreamTransferManagerTest, WhatThousandsOfWaitingLogsCostGrowsWithTheirNumberOnly) {
  // Sent one by one, each a change of the folder as it goes: how many names were listed for it.
  const auto namesListedFor = [&](int count) {
    folder_ = std::make_shared<FakeFolder>();
    agent_ = std::make_shared<FakeAgent>();
    put(count);
    make({{kSkeldaStreamConfigOptionMaxFileUploadCount, 1},
          {kSkeldaStreamConfigOptionMaxFileTransferCount, 5000}});
    for (int i = 0; i < count; ++i) {
      manager_->didCompleteTransfer(agent_->started.back(), nullptr);
      settle();
      for (int changes = 0; changes < 3; ++changes) monitor_->tell(0);
      settle();
    }
    EXPECT_EQ(agent_->started.size(), static_cast<std::size_t>(count));
    EXPECT_TRUE(folder_->names.empty());
    return static_cast<double>(folder_->namesListed);
  };
  const double of250 = namesListedFor(250);
  EXPECT_LT(namesListedFor(2000) / of250, 2 * 2000 / 250);
  EXPECT_LT(of250, 20 * 250);
}

TEST_F(SkeldaStreamTransferManagerTest, AFileThatComesWhileManyWaitIsSeenSoon) {
  put(100);
  make({{kSkeldaStreamConfigOptionMaxFileUploadCount, 1},
        {kSkeldaStreamConfigOptionMaxFileTransferCount, 5000}});
  folder_->names.insert("log0");
  monitor_->tell(0);
  EXPECT_TRUE(becomes([&] { return record("log0") != nullptr; }));
}

TEST_F(SkeldaStreamTransferManagerTest, WhatCameWhileTheFolderCouldNotBeListedIsSentAllTheSame) {
  const auto listedAgain = [&] {
    agent_->started.clear();
    folder_->unlistable = 1;
    folderChanged();
    EXPECT_TRUE(becomes([&] { return manager_->currentUploadCount() > 0; }));
  };
  makeWithOneUpload();
  put(10);
  listedAgain();
  for (int i = 1; i <= 10; ++i) complete("log" + std::to_string(i));
  EXPECT_EQ(agent_->started, folder_->removed);
  EXPECT_EQ(agent_->started.size(), 10u);
  // Where they cannot be sent, the limit holds for them as for all others.
  put(10);
  listedAgain();
  complete("log1", urlError(kURLErrorNetworkConnectionLost));
  settle();
  EXPECT_EQ(folder_->names.size(), 3u);
}

class FakeDataSender : public ISkeldaFrameLogDataSender {
 public:
  bool sendFrameLogData(Data data) override {
    if (failures > 0) return --failures, false;
    sent.push_back(data.string());
    return true;
  }
  int failures = 0;
  std::vector<std::string> sent;
};

struct Outcome {
  std::string name;
  ErrorRef error;

  bool isLostConnection() const {
    return error != nullptr && error->hasDomain(urlErrorDomain()) &&
           error->code() == kURLErrorNetworkConnectionLost;
  }
};

class Outcomes : public ISkeldaFileTransferAgentDelegate, public Recorded<Outcome> {
 public:
  void didCompleteTransfer(const std::string& name, ErrorRef error) override {
    add({name, std::move(error)});
  }
  void didAbandonTransfer() override { add({"abandoned", nullptr}); }
};

/// The agent, and behind it what reads the files.
class SkeldaLocalTransferAgentTest : public ::testing::Test {
 protected:
  SkeldaLocalTransferAgentTest() {
    agent_->setDelegate(outcomes_);
    writeFile(folder_ / "log", "bytes");
  }
  SkeldaFileStateRef file(const std::string& name) const {
    return std::make_shared<SkeldaFileState>(name, folder_.path(), 1, 0, 0, nullptr);
  }
  Outcome transfer(const SkeldaFileStateRef& file) {
    const std::size_t before = outcomes_->size();
    agent_->startTransfer(file);
    const auto outcomes = outcomes_->wait(before + 1);
    EXPECT_EQ(outcomes.size(), before + 1);
    return outcomes.back();
  }

  TemporaryDirectory folder_;
  std::shared_ptr<FakeDataSender> dataSender_ = std::make_shared<FakeDataSender>();
  std::shared_ptr<Outcomes> outcomes_ = std::make_shared<Outcomes>();
  std::shared_ptr<SkeldaLocalTransferAgent> agent_ =
      SkeldaLocalTransferAgent::localTransferAgentWithStreamFileReader(
          SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
              SkeldaStreamFileHandle::fileHandle(), dataSender_),
          SkeldaStreamFileManager::fileManager());
};

TEST_F(SkeldaLocalTransferAgentTest, TellsWhatBecameOfAFile) {
  const auto sent = transfer(file("log"));
  EXPECT_EQ(sent.name, "log");
  EXPECT_EQ(sent.error, nullptr);
  writeFile(folder_ / "empty", "");
  EXPECT_EQ(transfer(file("empty")).error->domain(), "file is empty");
  std::filesystem::create_directory(folder_ / "folder");
  const auto unreadable = transfer(file("folder"));
  ASSERT_NE(unreadable.error, nullptr);
  EXPECT_FALSE(unreadable.isLostConnection());
  EXPECT_TRUE(agent_->listTransfers().empty());
  const auto missing = file("missing");
  EXPECT_EQ(transfer(missing).name, "abandoned");
  EXPECT_EQ(missing->fileState(), 6u);
  EXPECT_EQ(agent_->listTransfers(), std::vector{missing});
  EXPECT_EQ(dataSender_->sent, Names{"bytes"});
}

TEST_F(SkeldaLocalTransferAgentTest, FinishesTheFirstOfANameAndForgetsTheCancelled) {
  const auto first = file("same"), second = file("same"), other = file("other");
  for (const auto& one : {first, second, first, other}) agent_->resumeTransfer(one);
  agent_->finishTransferWithFileName("same");
  agent_->finishTransferWithFileName("unknown");
  EXPECT_EQ(agent_->listTransfers(), (std::vector{second, other}));
  agent_->cancelTransfer(other);
  EXPECT_EQ(agent_->listTransfers(), std::vector{second});
}

TEST_F(SkeldaLocalTransferAgentTest, WhatCannotBeStoredIsALostConnectionAfterALongerAndLongerWait) {
  using Clock = std::chrono::steady_clock;
  dataSender_->failures = 2;
  for (const auto least : {50ms, 100ms}) {
    const auto begin = Clock::now();
    EXPECT_TRUE(transfer(file("log")).isLostConnection());
    EXPECT_GE(Clock::now() - begin, least);
  }
  EXPECT_EQ(transfer(file("log")).error, nullptr);
}

TEST_F(SkeldaLocalTransferAgentTest, ALogThatCannotBeReadJustNowIsALostConnection) {
  agent_ = SkeldaLocalTransferAgent::localTransferAgentWithStreamFileReader(
      SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(SkeldaStreamFileHandle::fileHandle(),
                                                               dataSender_, RetryDelay(1ms, 8ms)),
      SkeldaStreamFileManager::fileManager());
  agent_->setDelegate(outcomes_);
  // A lost connection so many times of eight, before it is a failure like any other.
  const std::tuple<const char*, int, int> cases[] = {{"open", EMFILE, 8}, {"open", ENFILE, 8},
                                                     {"open", ENOMEM, 8}, {"open", EACCES, 3},
                                                     {"read", EIO, 3},    {"open", ENXIO, 0}};
  for (const auto& [call, error, expected] : cases) {
    const FaultyFileCalls plan;
    plan->failAll(call, error);
    int lost = 0;
    for (int tries = 0; tries < 8; ++tries) lost += transfer(file("log")).isLostConnection();
    EXPECT_EQ(lost, expected) << call << " " << error;
    plan->clear();
    EXPECT_EQ(transfer(file("log")).error, nullptr);
  }
}

using TransferTest = SenderTest;

// The whole transfer side, wired as the agent wires it, from a real folder to a real server.
TEST_F(TransferTest, ALogLeavesTheFolderOnlyWhenItIsStoredAndReachesTheServerByteForByte) {
  const std::string folder = home_.storageFolder() + "/CommitedFrameLogs";
  const auto isEmpty = [&] { return std::filesystem::is_empty(folder); };
  const auto commit = [&](const std::string& name) {
    const std::string bytes = name + std::string(4000, '\x9c');
    std::filesystem::create_directories(folder);
    writeFile(home_.storageFolder() + "/new", bytes);
    std::filesystem::rename(home_.storageFolder() + "/new", folder + "/" + name);
    return bytes;
  };
  LoopbackServer server(answering(200));
  sendTo(server);
  const FaultyFileCalls plan;
  plan->failAll("syncData", ENOSPC);
  const std::string earlier = commit("of an earlier run");
  // Neither of these is a log; the pipe would hold whoever opened it.
  ASSERT_EQ(::mkfifo((folder + "/a pipe").c_str(), 0600), 0);
  writeFile(folder + "/file", "not followed");
  std::filesystem::rename(folder + "/file", home_ / "file");
  std::filesystem::create_symlink(home_ / "file", folder + "/a link");
  std::filesystem::create_directories(folder + "/a folder/within");
  const auto sender = makeSender();
  const auto files = SkeldaStreamFileManager::fileManager();
  const auto monitor = SkeldaNodeDataProvider::nodeDataProviderWithFilePath(folder, files);
  const auto manager = SkeldaStreamTransferManager::transferManagerWithConfig(
      {}, monitor, folder, files,
      SkeldaLocalTransferAgent::localTransferAgentWithStreamFileReader(
          SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
              SkeldaStreamFileHandle::fileHandle(), sender),
          files));
  const std::uint64_t stored = SkeldaAccounting::page().logsStored;
  manager->startup(nullptr);
  ASSERT_TRUE(server.waitUntil([&] { return log_.count("unable to store data of file") >= 2; }));
  EXPECT_FALSE(isEmpty());
  EXPECT_TRUE(server.requests().empty());

  plan->clear();
  ASSERT_TRUE(server.waitUntil([&] { return isEmpty() && blocks(sender).empty(); }));
  for (const char* name : {"a pipe", "a link", "a folder"}) {
    EXPECT_EQ(setAsideOf(home_.storageFolder() + "/" + name).size(), 1u) << name;
    EXPECT_EQ(log_.count(name + std::string(" is no file, set aside")), 1u);
  }
  const std::string later = commit("of this run");
  ASSERT_TRUE(server.waitForRequests(2));
  ASSERT_TRUE(server.waitUntil([&] { return isEmpty() && blocks(sender).empty(); }));
  ASSERT_EQ(server.requests().size(), 2u);
  EXPECT_EQ(SkeldaAccounting::page().logsStored, stored + 2);
  EXPECT_EQ(server.requests()[0].body, earlier);
  EXPECT_EQ(server.requests()[1].body, later);
  finish();
  monitor->removeObserver(manager);
}

}  // namespace
}  // namespace skelda::testing
