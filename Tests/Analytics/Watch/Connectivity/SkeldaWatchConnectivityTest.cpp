#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivity.h"

#include "Analytics/Utils/SkeldaGuards.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Tests/Platform/WatchConnectivity/SessionFixture.h"

using testing::Contains, testing::ElementsAre, testing::HasSubstr, testing::Not;

namespace {

struct Receiver : ISkeldaWatchConnectivityReceiver {
  bool didReceiveUserInfo(const Dictionary& userInfo) override {
    received.push_back(jsonText(userInfo));
    return userInfo.contains(kIOSVendorIDKey);
  }
  bool isSkeldaUserInfo(const Dictionary& userInfo) override {
    return userInfo.contains(kWatchOSResponseKey);
  }
  Texts received;  // on the connectivity queue
};

struct SkeldaWatchConnectivityTest : testing::Test, PhoneOfAPair {
  SkeldaWatchConnectivityTest() {
    installWatchConnectivity(watchEnd_);
    session_ = std::dynamic_pointer_cast<WCSession>(ClassRegistry::shared().make("WCSession"));
    connectivity_ = SkeldaWatchConnectivity::connectivity();
    phone_->activateSession();
    watchEnd_->setJoined(true);
  }
  ~SkeldaWatchConnectivityTest() override { EXPECT_EQ(skelda::swallowedExceptions(), 0u); }

  /// Everything that was posted to the connectivity queue so far, and what that posted, has run.
  void drain() {
    for (int i = 0; i < 4; ++i) connectivity_->queue()->sync([] {});
  }
  void setup() {
    connectivity_->setDelegate(receiver_);
    connectivity_->setup();
    atPhone_->wait(2);  // activated, and the watch has come
    drain();
  }
  std::shared_ptr<RecordingDelegate> setHost(unsigned calls = kWCAllDelegateCalls) {
    auto host = std::make_shared<RecordingDelegate>(calls);
    session_->setDelegate(host);
    return host;
  }
  bool isProxyInstalled() const {
    const auto delegate = session_->delegate();
    return delegate != nullptr && delegate->className() == "SkeldaWatchConnectivityProxy";
  }
  void fromPhone(const Dictionary& userInfo) {
    const std::size_t before = atPhone_->size();
    phone_->transferUserInfo(userInfo);
    atPhone_->wait(before + 1);  // acknowledged: the watch's proxy has it
    drain();
  }

  std::shared_ptr<WCSession> session_;
  std::shared_ptr<Receiver> receiver_ = std::make_shared<Receiver>();
  std::shared_ptr<SkeldaWatchConnectivity> connectivity_;
};

TEST_F(SkeldaWatchConnectivityTest, TheHostKeepsHearingWhateverDelegateItSetsAndWhenever) {
  const auto before = setHost();
  setup();
  EXPECT_TRUE(isProxyInstalled());
  fromPhone({{"host", 1}});
  EXPECT_THAT(before->all(), Contains(R"(info {"host":1})"));

  const auto after = std::make_shared<RecordingDelegate>();
  for (int i = 0; i < 2; ++i) {  // set twice, taken over twice
    session_->setDelegate(after);
    drain();
    EXPECT_TRUE(isProxyInstalled());
  }
  fromPhone({{"host", 2}});
  EXPECT_THAT(after->all(), ElementsAre(R"(info {"host":2})"));

  session_->setDelegate(nullptr);
  drain();
  EXPECT_TRUE(isProxyInstalled());
  fromPhone({{"host", 3}});
  EXPECT_THAT(after->all(), ElementsAre(R"(info {"host":2})"));
  EXPECT_THAT(receiver_->received, ElementsAre(R"({"host":1})", R"({"host":2})", R"({"host":3})"));
}

TEST_F(SkeldaWatchConnectivityTest, TheAgentsOwnMessagesDoNotReachTheHostOthersReachBoth) {
  const auto host = setHost();
  setup();
  fromPhone({{"skelda://id1", "vendor"}, {"hosts", "too"}});
  fromPhone({{"skelda://id3", "YES"}});
  fromPhone({{"plain", true}});
  EXPECT_THAT(receiver_->received, ElementsAre(R"({"skelda://id1":"vendor","hosts":"too"})",
                                               R"({"skelda://id3":"YES"})", R"({"plain":true})"));
  EXPECT_THAT(host->all(), Contains(R"(info {"plain":true})"));
  EXPECT_THAT(host->all(), Not(Contains(HasSubstr("skelda://"))));
  connectivity_->transferUserInfo({{"skelda://id3", "YES"}});
  session_->transferUserInfo({{"own", 1}});
  atPhone_->wait(7);
  host->wait(4);
  drain();
  EXPECT_THAT(host->all(), Contains(R"(finished {"own":1})"));
  EXPECT_THAT(host->all(), Not(Contains(R"(finished {"skelda://id3":"YES"})")));
}

TEST_F(SkeldaWatchConnectivityTest, EveryOtherCallIsForwardedToAHostThatAnswersIt) {
  const auto deaf = setHost(kWCDidReceiveMessage);
  setup();
  EXPECT_EQ(session_->delegate()->answeredCalls(),
            kWCDidReceiveMessage | kWCDidReceiveUserInfo | kWCDidFinishUserInfoTransfer);
  fromPhone({{"a", 1}});
  phone_->sendMessage({{"m", 1}});
  EXPECT_THAT(deaf->wait(1), ElementsAre(R"(message {"m":1})"));

  const auto host = setHost();
  drain();
  watchEnd_->setJoined(false);
  watchEnd_->setJoined(true);
  session_->activateSession();
  EXPECT_THAT(host->wait(3), ElementsAre("peer went", "peer came", "activated"));
}

TEST_F(SkeldaWatchConnectivityTest, ADelegateThatIsGoneIsNotCalledAndItsClassIsRemembered) {
  auto host = setHost(kWCDidReceiveMessage);
  setup();
  host.reset();
  phone_->sendMessage({{"m", 1}});
  fromPhone({{"a", 1}});
  EXPECT_EQ(receiver_->received.size(), 1u);
  EXPECT_TRUE(session_->delegate()->answeredCalls() & kWCDidReceiveMessage);
}

TEST_F(SkeldaWatchConnectivityTest, DisablingStopsSetUpAndTrackingButLeavesAnInstalledProxy) {
  setup();
  connectivity_->disableWatchConnectivity();
  drain();
  EXPECT_TRUE(isProxyInstalled());
  const auto host = setHost();
  drain();
  EXPECT_EQ(session_->delegate(), host);

  const auto other = SkeldaWatchConnectivity::connectivity();
  other->disableWatchConnectivity();
  other->setup();
  other->queue()->sync([] {});
  EXPECT_EQ(session_->delegate(), host);
}

TEST_F(SkeldaWatchConnectivityTest, TearingDownGivesTheHostItsSessionBack) {
  const auto host = setHost();
  setup();
  connectivity_->teardown();
  drain();
  EXPECT_EQ(session_->delegate(), host);
  session_->setDelegate(atPhone_);
  drain();
  EXPECT_EQ(session_->delegate(), atPhone_) << "nobody observes any more";
}

TEST_F(SkeldaWatchConnectivityTest, ADisabledTransferSendsNothingAndTheProxyItselfIsNoHost) {
  setup();
  connectivity_->disableTransferSkeldaInfo();
  connectivity_->transferUserInfo({{"skelda://id3", "YES"}});
  session_->setDelegate(session_->delegate());  // the proxy, set by somebody else
  drain();
  EXPECT_TRUE(isProxyInstalled());
  fromPhone({{"last", 1}});
  EXPECT_THAT(atPhone_->all(), Not(Contains(HasSubstr("skelda://id3"))));
  EXPECT_THAT(receiver_->received, ElementsAre(R"({"last":1})"));
}

TEST_F(SkeldaWatchConnectivityTest, DelegatesSetMeanwhileAndFromManyThreadsEndWithTheProxyInPlace) {
  std::array<std::shared_ptr<RecordingDelegate>, 4> hosts;
  for (auto& host : hosts) host = std::make_shared<RecordingDelegate>();
  // One comes while the proxy takes its place, when the agent does not look.
  std::atomic<bool> isSet{false};
  session_->addDelegateObserver([&](const auto&, const auto&) {
    if (!isSet.exchange(true)) session_->setDelegate(hosts[0]);
  });
  setup();
  EXPECT_TRUE(isProxyInstalled());
  inThreads(4, [&](unsigned thread) {
    for (int i = 0; i < 200; ++i) session_->setDelegate(hosts[thread]);
  });
  EXPECT_TRUE(becomes([&] { return drain(), isProxyInstalled(); }));
}

TEST(SkeldaWatchConnectivityWithoutAPhone, IsInert) {
  ClassRegistry::shared().registerClass({"WCSession", {}, {}, {}});
  const auto connectivity = SkeldaWatchConnectivity::connectivity();
  connectivity->setup();
  connectivity->transferUserInfo({{"a", 1}});
  connectivity->teardown();
  connectivity->queue()->sync([] {});
  EXPECT_EQ(skelda::swallowedExceptions(), 0u);
}

}  // namespace
