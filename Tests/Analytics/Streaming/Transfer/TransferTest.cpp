#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "Analytics/Streaming/Data Providers/SkeldaNodeDataProvider.h"
#include "Analytics/Streaming/Transfer/SkeldaLocalTransferAgent.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamTransferManager.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Skelda_Watch/SkeldaConstants.h"
#include "Tests/Analytics/Networking/SenderFixture.h"

namespace skelda::testing {
namespace {

/// The whole transfer side, wired as the agent wires it, from a real folder to a real server.
class TransferTest : public SenderTest {
 protected:
  ~TransferTest() override {
    if (monitor_ != nullptr) monitor_->removeObserver(manager_);
  }
  void start() {
    sender_ = makeSender();
    const auto files = SkeldaStreamFileManager::fileManager();
    const auto reader = SkeldaStreamFrameLogSender::frameLogSenderWithFileHandle(
        SkeldaStreamFileHandle::fileHandle(), sender_);
    monitor_ = SkeldaNodeDataProvider::nodeDataProviderWithFilePath(folder(), files);
    manager_ = SkeldaStreamTransferManager::transferManagerWithConfig(
        {{kSkeldaStreamConfigOptionMaxFileUploadCount, 1}}, monitor_, folder(), files,
        SkeldaLocalTransferAgent::localTransferAgentWithStreamFileReader(reader, files));
    manager_->startup(nullptr);
  }
  std::string folder() const { return home_.storageFolder() + "/CommitedFrameLogs"; }
  std::string commit(int number) {
    const std::string bytes = "log " + std::to_string(number) + std::string(4000, '\x9c');
    std::filesystem::create_directories(folder());
    writeFile(home_.storageFolder() + "/new", bytes);
    std::filesystem::rename(home_.storageFolder() + "/new",
                            folder() + "/.log_" + std::to_string(number) + ".archive");
    return bytes;
  }
  std::size_t committed() const {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(folder()))
      ++count;
    return count;
  }

  std::shared_ptr<SkeldaDataSender> sender_;
  std::shared_ptr<SkeldaNodeDataProvider> monitor_;
  std::shared_ptr<SkeldaStreamTransferManager> manager_;
};

TEST_F(TransferTest, LogsOfAnEarlierRunAndOfThisOneReachTheServerByteForByte) {
  TestAuthority authority;
  LoopbackServer server(answering(200), {authority.issue()});
  sendTo(server);
  std::set<std::string> logs;
  for (int i = 0; i < 4; ++i) logs.insert(commit(i));
  start();
  ASSERT_TRUE(server.waitForRequests(4)) << "without a new write to the folder";
  for (int i = 4; i < 12; ++i) {
    logs.insert(commit(i));
    ASSERT_TRUE(server.waitForRequests(static_cast<std::size_t>(i) + 1));
  }
  ASSERT_TRUE(server.waitUntil([&] { return blocks(sender_).empty() && committed() == 0; }));
  std::set<std::string> received;
  for (const auto& request : server.requests()) received.insert(request.body);
  EXPECT_EQ(received, logs);
  finish();
  EXPECT_TRUE(blockFiles().empty());
}

TEST_F(TransferTest, ALogLeavesTheFolderOnlyWhenItIsStored) {
  LoopbackServer server(answering(200));
  sendTo(server);
  const auto plan = std::make_shared<FaultPlan>();
  FaultyFileCalls calls(plan);
  plan->failKind("syncData", 1, {ENOSPC, false, {}, Fault::kForEver});
  const std::string log = commit(1);
  start();
  ASSERT_TRUE(server.waitUntil([&] { return log_.count("unable to store data of file") >= 2; }));
  EXPECT_EQ(committed(), 1u);
  EXPECT_TRUE(server.requests().empty());
  plan->clear();
  ASSERT_TRUE(server.waitUntil([&] { return committed() == 0 && blocks(sender_).empty(); }));
  ASSERT_EQ(server.requests().size(), 1u);
  EXPECT_EQ(server.requests()[0].body, log);
  finish();
}

}  // namespace
}  // namespace skelda::testing
