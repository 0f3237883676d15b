#include "Analytics/Streaming/Transfer/SkeldaStreamTransferManager.h"

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Platform/Foundation/URLError.h"
#include "Skelda_Watch/SkeldaConstants.h"
#include "Tests/Analytics/Streaming/Transfer/TransferFakes.h"

namespace skelda::testing {
namespace {

using Names = std::vector<std::string>;

class SkeldaStreamTransferManagerTest : public ::testing::Test {
 protected:
  ~SkeldaStreamTransferManagerTest() override { EXPECT_EQ(swallowedExceptions(), swallowed_); }

  void make(platform::Dictionary config = {}) {
    manager_ = SkeldaStreamTransferManager::transferManagerWithConfig(std::move(config), monitor_,
                                                                      "/logs", folder_, agent_);
    manager_->startup(nullptr);
    settle();
  }
  void makeWithOneUpload() { make({{kSkeldaStreamConfigOptionMaxFileUploadCount, 1}}); }
  /// Until the manager has nothing left to do.
  void settle() {
    for (int posted = 0; posted < 2; ++posted) manager_->syncBlock([] {});
  }
  void put(int count) {
    for (int i = 1; i <= count; ++i) folder_->names.insert("log" + std::to_string(i));
  }
  void folderChanged() {
    monitor_->tell(0);
    settle();
  }
  void complete(const std::string& name, platform::ErrorRef error = nullptr) {
    manager_->didCompleteTransfer(name, std::move(error));
    settle();
  }
  SkeldaFileStateRef record(const std::string& name) {
    return manager_->fileUploadStatusDictionary()[name];
  }
  static std::uint64_t removed(SkeldaLogRemoval reason) {
    return SkeldaAccounting::page().logsRemoved[static_cast<std::size_t>(reason)];
  }
  static platform::ErrorRef otherError() {
    return std::make_shared<const platform::Error>(platform::makeErrorDomain("other"), 0);
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
  complete("log10");
  EXPECT_TRUE(manager_->fileUploadStatusDictionary().empty());
  EXPECT_EQ(manager_->currentUploadCount(), 0);
}

TEST_F(SkeldaStreamTransferManagerTest, OrdersNamesByTheirNumbers) {
  const char* ordered[] = {
      "", ".a", "a", "a1", "a2", "a2b10", "a2b11", "a10", "a010b", "a18446744073709551616", "b"};
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
  struct Case {
    int files;
    std::size_t deleted;
  };
  for (const auto& one : {Case{4, 0}, Case{5, 2}, Case{10, 7}}) {
    folder_ = std::make_shared<FakeFolder>();
    agent_ = std::make_shared<FakeAgent>();
    put(one.files);
    const std::uint64_t before = removed(SkeldaLogRemoval::folderFull);
    makeWithOneUpload();
    EXPECT_EQ(removed(SkeldaLogRemoval::folderFull), before + one.deleted);
    EXPECT_EQ(folder_->removed.size(), one.deleted);
    if (one.deleted > 0) {
      EXPECT_EQ(folder_->removed.front(), "log1");
      EXPECT_EQ(folder_->removed.back(), "log" + std::to_string(one.deleted));
    }
    EXPECT_EQ(agent_->started, Names{"log" + std::to_string(one.deleted + 1)});
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
    const auto code = i % 2 == 0 ? platform::kURLErrorNotConnectedToInternet
                                 : platform::kURLErrorNetworkConnectionLost;
    complete("log1", platform::urlError(code));
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
  const auto lookalike = std::make_shared<const platform::Error>(
      platform::makeErrorDomain(platform::urlErrorDomain()->c_str()),
      platform::kURLErrorNotConnectedToInternet);
  const std::uint64_t before = removed(SkeldaLogRemoval::thirdFailedTry);
  for (const auto& error : {lookalike, otherError(), platform::urlError(-1001)}) {
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
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (record("log0") == nullptr && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_NE(record("log0"), nullptr);
}

TEST_F(SkeldaStreamTransferManagerTest, WhatCameWhileTheFolderCouldNotBeListedIsSentAllTheSame) {
  const auto listedAgain = [&] {
    agent_->started.clear();
    folder_->unlistable = 1;
    folderChanged();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (manager_->currentUploadCount() == 0 && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
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
  complete("log1", platform::urlError(platform::kURLErrorNetworkConnectionLost));
  settle();
  EXPECT_EQ(folder_->names.size(), 3u);
}

}  // namespace
}  // namespace skelda::testing
