#pragma once

#include "Analytics/Networking/DataSender/SkeldaDataSender.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/LoopbackServer.h"

namespace skelda::testing {

/// A data sender with a storage folder of its own, and the looks into that folder that tests need.
struct SenderTest : ::testing::Test {
  SenderTest() { SkeldaUtil::setLogLevel(2); }
  ~SenderTest() override {
    finish();
    SkeldaNetworkReachabilityDataProvider::sharedInstance()->setConnectedToNetwork(false);
    EXPECT_EQ(swallowedExceptions(), swallowed_);
  }

  /// As after a start of the process: with what the folder holds.
  std::shared_ptr<SkeldaDataSender> makeSender(const std::string& apiKey = "key") {
    const auto tracker = std::make_shared<SkeldaBackgroundTaskTracker>();
    const auto queue = Queue::serial("test.Analytics.LogSender");
    return senders_.emplace_back(SkeldaDataSender::senderWithQueue(queue, tracker, apiKey));
  }
  /// Until nothing is under way any more: what came later would find another folder.
  void finish() {
    for (const auto& sender : std::exchange(senders_, {})) {
      becomes([&] { return isIdle(sender); });
      drain(sender->dataIndex());
    }
  }

  static LoopbackServer::RequestHandler answeringWhenReleased() {
    return [](ServerConnection& connection, const auto&) {
      connection.server().hold();
      connection.answer(200);
    };
  }
  static void sendTo(const LoopbackServer& server) {
    SkeldaNetworkURLsDataProvider::sharedInstance()->setServerURL(server.url());
  }
  static Data bytes(const std::string& text) { return Data(text); }

  Texts blockFiles() const {
    auto names = namesIn(home_.storageFolder());
    std::erase_if(names, std::not_fn(SkeldaDataSenderBlockInfo::isBlockFileName));
    return names;
  }
  std::string pathOf(const std::string& name) const { return home_.storageFolder() + "/" + name; }
  /// What the index names, whatever is pending there done.
  static SkeldaDataSenderIndex::Blocks blocks(const std::shared_ptr<SkeldaDataSender>& sender) {
    return sender->dataIndex()->notSentBlocksForDataKey(sender->dataKey());
  }
  /// Until nothing is pending at the index and its file is written.
  static bool drain(const std::shared_ptr<SkeldaDataSenderIndex>& index) {
    index->notSentBlocksForDataKey("");
    return index->saveState();
  }
  static bool isIdle(const std::shared_ptr<SkeldaDataSender>& sender) {
    bool idle = false;
    sender->queue()->sync([&] { idle = sender->runningTasks().empty(); });
    return idle;
  }
  std::string indexFile() const { return pathOf(std::string(kSkeldaSenderIndexFileName)); }

  const std::uint64_t swallowed_ = swallowedExceptions();
  AgentHome home_;
  LogCapture log_;
  std::vector<std::shared_ptr<SkeldaDataSender>> senders_;
};

}  // namespace skelda::testing
