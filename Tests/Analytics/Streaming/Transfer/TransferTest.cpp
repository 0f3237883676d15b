#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/Data Providers/SkeldaNodeDataProvider.h"
#include "Analytics/Streaming/Transfer/SkeldaLocalTransferAgent.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamTransferManager.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Tests/Analytics/Networking/DataSender/SenderFixture.h"

namespace skelda::testing {
namespace {

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
  const auto plan = std::make_shared<FaultPlan>();
  FaultyFileCalls calls(plan);
  plan->failKind("syncData", 1, {.error = ENOSPC, .times = Fault::kForEver});
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
    const std::filesystem::directory_iterator all(home_.storageFolder());
    EXPECT_EQ(std::count_if(begin(all), end(all),
                            [&](const auto& entry) {
                              const std::string there = entry.path().filename();
                              return there.starts_with(name + std::string(".unread_"));
                            }),
              1)
        << name;
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
