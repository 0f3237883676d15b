#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "Platform/WatchConnectivity/WCDefaultSession.h"
#include "Platform/WatchConnectivity/WCPairTransport.h"
#include "Tests/Platform/WatchConnectivity/SessionFixture.h"

using platform::Dictionary;
using platform::WCDefaultSession;
using platform::WCPairTransport;
using testing::ElementsAre;

namespace {

class WCSessionTest : public testing::Test {
 protected:
  WCSessionTest() {
    std::tie(watchEnd_, phoneEnd_) = WCPairTransport::make();
    watch_ = WCDefaultSession::make(watchEnd_);
    phone_ = WCDefaultSession::make(phoneEnd_);
    watch_->setDelegate(atWatch_);
    phone_->setDelegate(atPhone_);
  }
  void activate() {
    watch_->activateSession();
    phone_->activateSession();
    atWatch_->wait(1);
    atPhone_->wait(1);
  }

  WCPairTransport::Ref watchEnd_, phoneEnd_;
  std::shared_ptr<WCDefaultSession> watch_, phone_;
  std::shared_ptr<RecordingDelegate> atWatch_ = std::make_shared<RecordingDelegate>();
  std::shared_ptr<RecordingDelegate> atPhone_ = std::make_shared<RecordingDelegate>();
};

TEST_F(WCSessionTest, UserInfosWaitForThePeerAndArriveInOrderOnce) {
  activate();
  for (int i = 0; i < 3; ++i) watch_->transferUserInfo({{"n", i}});
  watchEnd_->setJoined(true);
  EXPECT_THAT(atPhone_->wait(5), ElementsAre("activated", "peer came", R"(info {"n":0})",
                                             R"(info {"n":1})", R"(info {"n":2})"));
  EXPECT_THAT(atWatch_->wait(5), ElementsAre("activated", "peer came", R"(finished {"n":0})",
                                             R"(finished {"n":1})", R"(finished {"n":2})"));
}

TEST_F(WCSessionTest, WhatAPeerTookWithItUnacknowledgedIsOfferedAgain) {
  activate();
  // A peer that listens and never acknowledges: the bare transport.
  std::atomic<int> packets{0};
  phoneEnd_->open({.peerDidChange = [](bool) {}, .didReceivePacket = [&](auto&&...) { ++packets; }},
                  nullptr);
  watchEnd_->setJoined(true);
  watch_->transferUserInfo({{"n", 1}});
  for (int i = 0; i < 1000 && packets == 0; ++i) std::this_thread::yield();
  watchEnd_->setJoined(false);
  watchEnd_->setJoined(true);
  atWatch_->wait(4);  // activated, came, went, came
  watch_->transferUserInfo({{"n", 2}});
  watch_->activateSession();
  atWatch_->wait(5);
  EXPECT_EQ(packets, 3) << "the first again, and the second";
}

TEST_F(WCSessionTest, OnlyAnsweredCallsAreMadeAndADelegateThatThrowsIsContained) {
  struct Throwing : platform::WCSessionDelegate {
    void sessionDidReceiveUserInfo(platform::WCSession&, const Dictionary&) override { throw 1; }
  };
  const auto narrow = std::make_shared<RecordingDelegate>(platform::kWCDidReceiveUserInfo);
  activate();
  watchEnd_->setJoined(true);
  atWatch_->wait(2);
  const auto throwing = std::make_shared<Throwing>();
  watch_->setDelegate(throwing);
  phone_->transferUserInfo({{"n", 1}});
  EXPECT_EQ(atPhone_->wait(3).back(), R"(finished {"n":1})");
  watch_->setDelegate(narrow);
  phone_->sendMessage({{"now", 1}});
  phone_->transferUserInfo({{"n", 2}});
  EXPECT_THAT(narrow->wait(1), ElementsAre(R"(info {"n":2})"));
}

TEST_F(WCSessionTest, BytesThatAreNoPacketCostThePeerItsLink) {
  activate();
  watchEnd_->setJoined(true);
  atWatch_->wait(2);
  phoneEnd_->send(platform::Data(std::string("garbage")));
  EXPECT_EQ(atWatch_->wait(3).back(), "peer went");
  EXPECT_FALSE(watch_->sendMessage({{"a", 1}}));
}

}  // namespace
