#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/Data Providers/SkeldaNodeDataProvider.h"
#include "Analytics/Streaming/Transfer/SkeldaLocalTransferAgent.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamTransferManager.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Tests/Analytics/Networking/DataSender/SenderFixture.h"
#include "Tests/Analytics/Streaming/Transfer/TransferFakes.h"

namespace {

struct SkeldaStreamTransferManagerTest : testing::Test {
  ~SkeldaStreamTransferManagerTest() override {
    EXPECT_EQ(skelda::swallowedExceptions(), swallowed_);
  }

  void make(Dictionary config = {}) {
    config.set(std::string(kSkeldaStreamConfigOptionMaxFileUploadCount), 1);
    manager_ = SkeldaStreamTransferManager::transferManagerWithConfig(std::move(config), monitor_,
                                                                      "/logs", folder_, agent_);
    manager_->startup(nullptr);
    drain();
  }
  void makeWithRoom() { make({{kSkeldaStreamConfigOptionMaxFileTransferCount, 5000}}); }
  void drain() { settle(*manager_); }
  static Texts logs(int count) {
    Texts names;
    for (int i = 1; i <= count; ++i) names.push_back("log" + std::to_string(i));
    return names;
  }
  void put(int count) {
    for (const auto& name : logs(count)) folder_->names.insert(name);
  }
  void folderChanged(std::uint32_t change = 0) {
    monitor_->tell(change);
    drain();
  }
  void complete(const std::string& name, ErrorRef error = nullptr) {
    manager_->didCompleteTransfer(name, std::move(error));
    drain();
  }
  SkeldaFileStateRef record(const std::string& name) {
    return manager_->fileUploadStatusDictionary()[name];
  }
  static std::uint64_t removed(SkeldaLogRemoval reason) {
    return at(SkeldaAccounting::page().logsRemoved, reason);
  }
  /// Does what the words say and answers what the manager did: ">log1" is handed to the agent,
  /// "xlog1" cancelled, "-log1" deleted. For "?", how many uploads count and, for each record,
  /// name, state and failed tries. At the end, what was counted as lost.
  std::string outcomeOf(const std::string& script);

  const std::uint64_t swallowed_ = skelda::swallowedExceptions();
  std::shared_ptr<FakeMonitor> monitor_ = std::make_shared<FakeMonitor>();
  std::shared_ptr<FakeFolder> folder_ = std::make_shared<FakeFolder>();
  std::shared_ptr<FakeAgent> agent_ = std::make_shared<FakeAgent>();
  std::shared_ptr<SkeldaStreamTransferManager> manager_;
};

TEST_F(SkeldaStreamTransferManagerTest, OrdersNamesByTheirNumbers) {
  const auto before = &SkeldaStreamTransferManager::isOrderedBefore;
  const char* const ordered[] = {"",   ".a",    "a",     "a1",  "a01bc3", "a1bc4",
                                 "a2", "a2b10", "a2b11", "a10", "a010b",  "a18446744073709551616",
                                 "b"};
  for (const auto& one : ordered)
    for (const auto& other : ordered)
      EXPECT_EQ(before(one, other), &one < &other) << one << " " << other;
  EXPECT_NE(before("a1", "a01"), before("a01", "a1"));
}

std::string SkeldaStreamTransferManagerTest::outcomeOf(const std::string& script) {
  folder_ = std::make_shared<FakeFolder>();
  agent_ = std::make_shared<FakeAgent>();
  monitor_ = std::make_shared<FakeMonitor>();
  // The same text and code in another domain object is not the same error.
  const auto lookalike = std::make_shared<const Error>(makeErrorDomain(urlErrorDomain()->c_str()),
                                                       kURLErrorNotConnectedToInternet);
  const std::map<std::string, ErrorRef> ends{
      {"ok", nullptr},           {"offline", urlError(kURLErrorNotConnectedToInternet)},
      {"lookalike", lookalike},  {"lost", urlError(kURLErrorNetworkConnectionLost)},
      {"late", urlError(-1001)}, {"other", std::make_shared<Error>(makeErrorDomain("other"), 0)}};
  const std::uint64_t full = removed(SkeldaLogRemoval::folderFull);
  const std::uint64_t failed = removed(SkeldaLogRemoval::thirdFailedTry);
  const std::pair<const char*, Texts*> told[] = {
      {"x", &agent_->cancelled}, {"-", &folder_->removed}, {">", &agent_->started}};
  std::map<Texts*, std::size_t> read;
  std::string out;
  std::istringstream in(script);
  for (std::string word; in >> word;) {
    const std::string name = word.substr(word.find(':') + 1), what = word.substr(0, word.find(':'));
    if (what == "add") folder_->names.insert(name);
    if (what == "put") put(std::stoi(name));
    if (what == "vanish") folder_->names.erase(name);
    if (what == "stuck") folder_->undeletable.insert(name);
    if (what == "loose") folder_->undeletable.clear();
    if (what == "unlistable") folder_->isUnlistable = true;
    if (what == "start") make();
    if (what == "change") folderChanged();
    if (what == "other-change") folderChanged(1);
    if (what == "waiting") record(name)->setFileState(kSkeldaFileStateWaiting);
    if (ends.contains(what)) complete(name, ends.at(what));
    if (what == "abandon") {
      record(name)->setFileState(kSkeldaFileStateError);
      manager_->didAbandonTransfer();
      drain();
    }
    for (const auto& [mark, names] : told)
      for (auto& at = read[names]; at < names->size(); ++at) addWord(out, mark + (*names)[at]);
    if (what != "?") continue;
    addWord(out, std::to_string(manager_->currentUploadCount()));
    for (const auto& [log, file] : manager_->fileUploadStatusDictionary())
      addWord(out, fmt::format("{}:{}:{}", log, file->fileState(), file->fileUploadRetryCounter()));
  }
  EXPECT_TRUE(script.find("stuck") != script.npos || monitor_->announced == folder_->removed)
      << "or it would look for what it knows";
  if (const auto since = removed(SkeldaLogRemoval::folderFull) - full)
    addWord(out, fmt::format("full:{}", since));
  if (const auto since = removed(SkeldaLogRemoval::thirdFailedTry) - failed)
    addWord(out, fmt::format("failed:{}", since));
  return out;
}

TEST_F(SkeldaStreamTransferManagerTest, SendsOldestFirstAndLosesOnlyWhatItsLimitsSay) {
  const std::pair<const char*, const char*> cases[] = {
      // Oldest first; what is sent goes.
      {"add:log10 add:log9 add:.log2 add:log9b start ? ok:.log2 ok:log9 ok:log9b ok:log10 ?",
       ">.log2 1 .log2:1:0 log9:0:0 log9b:0:0 log10:0:0 -.log2 >log9 -log9 >log9b -log9b >log10 "
       "-log10 0"},
      // A folder over its limit loses its oldest logs, but not one under way.
      {"put:4 start", ">log1"},
      {"put:5 start", "-log1 -log2 >log3 full:2"},
      {"put:10 start", "-log1 -log2 -log3 -log4 -log5 -log6 -log7 >log8 full:7"},
      {"put:1 start put:5 change ok:log1", ">log1 -log2 -log3 -log1 >log4 full:2"},
      // Being offline costs no try and frees the place; the third failure deletes the log unsent.
      {"put:2 start offline:log1 ? lost:log1 ? offline:log1 lost:log1 offline:log1 ?",
       ">log1 >log1 1 log1:1:0 log2:0:0 >log1 1 log1:1:0 log2:0:0 >log1 >log1 >log1 1 log1:1:0 "
       "log2:0:0"},
      {"put:2 start lookalike:log1 other:log1 late:log1", ">log1 >log1 >log1 -log1 >log2 failed:1"},
      // What cannot be deleted is not sent again, and goes when the folder is over its limit.
      {"put:1 stuck:log1 start ok:log1 ? change ? change ? change ? loose change put:5 change",
       ">log1 0 log1:5:0 0 log1:5:0 0 log1:5:0 0 log1:6:0 -log1 -log2 >log3 full:1"},
      // The place of a log that vanished, or that the agent gave up, is given on; a late end of it
      // changes nothing.
      {"put:2 start vanish:log1 change ok:log1 ? ok:log2", ">log1 xlog1 >log2 1 log2:1:0 -log2"},
      {"put:2 start abandon:log1", ">log1 >log2"},
      // The end of an unknown one still runs a pass; no change that matters does not.
      {"start put:1 unlistable change ? other-change ? change waiting:log1 ok:unknown",
       "0 0 >log1 >log1"}};
  for (const auto& [script, outcome] : cases) EXPECT_EQ(outcomeOf(script), outcome) << script;
}

TEST_F(SkeldaStreamTransferManagerTest, WhatThousandsOfWaitingLogsCostGrowsWithTheirNumberOnly) {
  // Sent one by one, each a change of the folder as it goes: how many names were listed for it.
  const auto namesListedFor = [&](int count) {
    folder_ = std::make_shared<FakeFolder>();
    agent_ = std::make_shared<FakeAgent>();
    put(count);
    makeWithRoom();
    for (int i = 0; i < count; ++i) {
      complete(agent_->started.back());
      for (int changes = 0; changes < 3; ++changes) monitor_->tell(0);
      drain();
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
  makeWithRoom();
  folder_->names.insert("log0");
  monitor_->tell(0);
  EXPECT_TRUE(becomes([&] { return record("log0") != nullptr; }));
}

TEST_F(SkeldaStreamTransferManagerTest, WhatCameWhileTheFolderCouldNotBeListedIsSentAllTheSame) {
  const auto listedAgain = [&] {
    agent_->started.clear();
    folder_->isUnlistable = true;
    folderChanged();
    EXPECT_TRUE(becomes([&] { return manager_->currentUploadCount() > 0; }));
  };
  make();
  put(10);
  listedAgain();
  for (const auto& name : logs(10)) complete(name);
  EXPECT_EQ(agent_->started, folder_->removed);
  EXPECT_EQ(agent_->started.size(), 10u);
  // Where they cannot be sent, the limit holds for them as for all others.
  put(10);
  listedAgain();
  complete("log1", urlError(kURLErrorNetworkConnectionLost));
  drain();
  EXPECT_EQ(folder_->names.size(), 3u);
}

struct FakeDataSender : ISkeldaFrameLogDataSender {
  bool sendFrameLogData(Data data) override {
    if (failures > 0) return --failures, false;
    sent.push_back(data.string());
    return true;
  }
  int failures = 0;
  Texts sent;
};

struct Outcome {
  std::string name;
  ErrorRef error;

  bool isLostConnection() const {
    return codeOf(error) == kURLErrorNetworkConnectionLost && error->hasDomain(urlErrorDomain());
  }
};

struct Outcomes : ISkeldaFileTransferAgentDelegate, Recorded<Outcome> {
  void didCompleteTransfer(const std::string& name, ErrorRef error) override {
    add({name, std::move(error)});
  }
  void didAbandonTransfer() override { add({"abandoned", nullptr}); }
};

template <class... Delay>
std::shared_ptr<SkeldaLocalTransferAgent> agentBefore(
    std::shared_ptr<ISkeldaFrameLogDataSender> sender, Delay... delay) {
  return SkeldaLocalTransferAgent::localTransferAgentWithStreamFileReader(
      SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(SkeldaStreamFileHandle::fileHandle(),
                                                               std::move(sender), delay...),
      SkeldaStreamFileManager::fileManager());
}

struct SkeldaLocalTransferAgentTest : testing::Test {
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
  std::shared_ptr<SkeldaLocalTransferAgent> agent_ = agentBefore(dataSender_);
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
  EXPECT_EQ(dataSender_->sent, Texts{"bytes"});
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
  agent_ = agentBefore(dataSender_, RetryDelay(1ms, 8ms));
  agent_->setDelegate(outcomes_);
  // A lost connection so many times of eight, before it is a failure like any other.
  const std::tuple<const char*, int, int> cases[] = {{"open", EMFILE, 8}, {"open", ENFILE, 8},
                                                     {"open", ENOMEM, 8}, {"open", EACCES, 3},
                                                     {"read", EIO, 3},    {"open", ENXIO, 0}};
  for (const auto& [call, error, expected] : cases) {
    const FaultyFileCalls plan(call, Fault::always(error));
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
    const std::string log = name + std::string(4000, '\x9c');
    std::filesystem::create_directories(folder);
    writeFile(pathOf("new"), log);
    std::filesystem::rename(pathOf("new"), folder + "/" + name);
    return log;
  };
  LoopbackServer server(answering(200));
  sendTo(server);
  const FaultyFileCalls plan("syncData", Fault::always(ENOSPC));
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
      {}, monitor, folder, files, agentBefore(sender));
  const std::uint64_t stored = SkeldaAccounting::page().logsStored;
  manager->startup(nullptr);
  ASSERT_TRUE(server.waitUntil([&] { return log_.count("unable to store data of file") >= 2; }));
  EXPECT_FALSE(isEmpty());
  EXPECT_TRUE(server.requests().empty());

  plan->clear();
  ASSERT_TRUE(server.waitUntil([&] { return isEmpty() && blocks(sender).empty(); }));
  for (const char* name : {"a pipe", "a link", "a folder"}) {
    EXPECT_EQ(setAsideOf(pathOf(name)).size(), 1u) << name;
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
