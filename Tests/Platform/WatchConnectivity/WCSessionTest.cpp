#include <malloc.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "Platform/WatchConnectivity/WCSocketTransport.h"
#include "Tests/Platform/WatchConnectivity/SessionFixture.h"
#include "Tools/skelda-phone/PhoneLink.h"

// accept4() as the program sees it: refused for want of descriptors while the test says so.
static std::atomic<bool> refuseToAccept{false};
static std::atomic<int> refusals{0};
extern "C" int __real_accept4(int, sockaddr*, socklen_t*, int);
extern "C" int __wrap_accept4(int listener, sockaddr* address, socklen_t* length, int flags) {
  if (!refuseToAccept) return __real_accept4(listener, address, length, flags);
  ++refusals;
  errno = EMFILE;
  return -1;
}

using testing::Contains, testing::ElementsAre;

namespace {

struct WCSessionTest : testing::Test, PhoneOfAPair {
  WCSessionTest() { watch_->setDelegate(atWatch_); }
  void activate() {
    watch_->activateSession();
    phone_->activateSession();
    atWatch_->wait(1);
    atPhone_->wait(1);
  }

  std::shared_ptr<WCDefaultSession> watch_ = WCDefaultSession::make(watchEnd_);
  std::shared_ptr<RecordingDelegate> atWatch_ = std::make_shared<RecordingDelegate>();
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

TEST_F(WCSessionTest, WhatIsTooLongFailsAndHoldsNothingUp) {
  activate();
  watchEnd_->setJoined(true);
  atWatch_->wait(2);
  const auto without = WCPacket{WCPacket::Kind::userInfo, 1, {{"n", ""}}}.encoded().length();
  const std::string longest(WCPacketFraming::kMaximumLength - without, 'x');
  watch_->transferUserInfo({{"n", longest + "x"}});
  watch_->transferUserInfo({{"n", longest}});
  EXPECT_TRUE(atWatch_->wait(3).back().starts_with("failed")) << "one byte too long";
  EXPECT_TRUE(atWatch_->wait(4).back().starts_with("finished"));
}

TEST_F(WCSessionTest, WhatAPeerTookWithItUnacknowledgedIsOfferedAgain) {
  activate();
  // A peer that listens and never acknowledges: the bare transport.
  std::atomic<int> packets{0};
  phoneEnd_->open({.peerDidChange = [](bool) {}, .didReceivePacket = [&](auto&&...) { ++packets; }},
                  nullptr);
  watchEnd_->setJoined(true);
  watch_->transferUserInfo({{"n", 1}});
  EXPECT_TRUE(becomes([&] { return packets > 0; }));
  watchEnd_->setJoined(false);
  watchEnd_->setJoined(true);
  atWatch_->wait(4);  // activated, came, went, came
  watch_->transferUserInfo({{"n", 2}});
  watch_->activateSession();
  atWatch_->wait(5);
  EXPECT_EQ(packets, 3) << "the first again, and the second";
}

TEST_F(WCSessionTest, OnlyAnsweredCallsAreMadeAndADelegateThatThrowsIsContained) {
  struct Throwing : WCSessionDelegate {
    void sessionDidReceiveUserInfo(WCSession&, const Dictionary&) override { throw 1; }
  };
  const auto narrow = std::make_shared<RecordingDelegate>(kWCDidReceiveUserInfo);
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

struct WCSocketTransportTest : testing::Test {
  WCSocketTransportTest() {
    session_ = open(path());
    session_->setDelegate(delegate_);
    session_->activateSession();
    delegate_->wait(1);
  }

  static std::shared_ptr<WCDefaultSession> open(const std::string& path) {
    return WCDefaultSession::make(WCSocketTransport::make(path));
  }
  std::string path() const { return folder_ / "watch.sock"; }
  static PhoneLink::Clock::time_point soon() { return PhoneLink::Clock::now() + 10s; }
  /// Hands it over and answers under which identifier the watch says that it has it.
  static std::uint64_t handOver(PhoneLink& phone, std::uint64_t identifier, Dictionary content,
                                std::chrono::milliseconds pause = {}) {
    EXPECT_TRUE(phone.send({WCPacket::Kind::userInfo, identifier, std::move(content)}, pause));
    const auto answer = phone.receive(soon());
    return answer && answer->kind == WCPacket::Kind::received ? answer->identifier : 0;
  }

  TemporaryDirectory folder_;
  std::shared_ptr<WCDefaultSession> session_;
  std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
};

TEST_F(WCSocketTransportTest, APhoneHandsOverAndIsAnswered) {
  EXPECT_EQ(modeOf(path()), 0600u);
  PhoneLink phone(path());
  ASSERT_TRUE(phone.connect(soon()));
  EXPECT_EQ(handOver(phone, 5, {{"skelda://id1", "v"}}, 1ms), 5u);
  EXPECT_THAT(delegate_->all(), Contains(R"(info {"skelda://id1":"v"})"));
  session_->transferUserInfo({{"skelda://id3", "YES"}});
  EXPECT_EQ(phone.receive(soon())->content, (Dictionary{{"skelda://id3", "YES"}}));
}

TEST_F(WCSocketTransportTest, HostilePeersAreLeftAndTheNextOneIsHeard) {
  const WCPacket packet{WCPacket::Kind::userInfo, 1, {{"k", "v"}}};
  const auto whole = WCPacketFraming::framed(packet.encoded())->string();
  Texts attacks{std::string("\x00\x00\x00\x40", 4) + "1 GiB announced", std::string(4, '\0'),
                std::string(4, '\xff'), std::string("\x05\x00\x00\x00", 4) + "trash"};
  for (std::size_t cut = 0; cut < whole.size(); ++cut) attacks.push_back(whole.substr(0, cut));
  std::size_t heard = delegate_->all().size();
  for (const auto& attack : attacks) {
    PhoneLink hostile(path());
    ASSERT_TRUE(hostile.connect(soon()));
    hostile.sendBytes(attack);
    const bool understood = attack.size() < 4 || whole.starts_with(attack);
    EXPECT_TRUE(understood || !hostile.receive(soon())) << "the watch hangs up";
    hostile.hangUp();
    EXPECT_EQ(delegate_->wait(heard += 2).back(), "peer went");
  }
  PhoneLink phone(path());
  ASSERT_TRUE(phone.connect(soon()));
  EXPECT_EQ(handOver(phone, 9, {{"after", "all"}}), 9u);
  EXPECT_THAT(delegate_->all(), Contains(R"(info {"after":"all"})"));
  EXPECT_THAT(delegate_->all(), testing::Not(Contains(R"(info {"k":"v"})")));
}

TEST_F(WCSocketTransportTest, ASocketInUseIsNotTakenAStaleOneIs) {
  const auto outcomeOf = [](const std::string& socket) {
    const auto session = open(socket);
    const auto delegate = std::make_shared<RecordingDelegate>();
    session->setDelegate(delegate);
    session->activateSession();
    return delegate->wait(1);
  };
  const LogCapture log;
  EXPECT_THAT(outcomeOf(path()), ElementsAre("not activated"));
  EXPECT_EQ(log.count("Address already in use"), 1u);

  const std::string stale = folder_ / "stale.sock";  // left by a process that was killed
  ChildProcess child([&] {
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    stale.copy(address.sun_path, sizeof address.sun_path - 1);
    return ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address);
  });
  ASSERT_EQ(child.wait(), 0);
  EXPECT_THAT(outcomeOf(stale), ElementsAre("activated"));
}

TEST_F(WCSocketTransportTest, WithoutDescriptorsAPeerWaitsAtTheDoorAndNobodyRunsInCircles) {
  refuseToAccept = true;
  refusals = 0;
  PhoneLink phone(path());
  ASSERT_TRUE(phone.connect(soon()));
  while (refusals == 0) std::this_thread::yield();
  std::this_thread::sleep_for(200ms);
  EXPECT_EQ(refusals, 1);
  refuseToAccept = false;
  EXPECT_EQ(handOver(phone, 7, {{"late", "but here"}}), 7u);
}

TEST(WCSocketTransportLimitTest, APeerThatSendsFasterThanItIsLookedAtIsNotReadMeanwhile) {
  using Place = WCTransport::Place;
  const std::array<std::size_t, 3> cases[] = {{300, 100, 64}, {12, 300 << 10, 4}};
  for (const auto& [packets, length, atMost] : cases) {
    TemporaryDirectory folder;
    Recorded<std::shared_ptr<Place>> taken;  // a place is held until it is given up
    const auto take = [&](auto&&, Place place) {
      taken.add(std::make_shared<Place>(std::move(place)));
    };
    const auto transport = WCSocketTransport::make(folder / "watch.sock");
    ASSERT_TRUE(transport->open({.peerDidChange = [](bool) {}, .didReceivePacket = take}, nullptr));
    std::thread sender([&, count = packets, size = length] {
      PhoneLink phone(folder / "watch.sock");
      ASSERT_TRUE(phone.connect(PhoneLink::Clock::now() + 10s));
      const auto frame = WCPacketFraming::framed(Data(std::string(size, 'x')));
      for (std::size_t i = 0; i < count; ++i) phone.sendBytes(frame->view());
      taken.wait(count);
    });
    EXPECT_EQ(taken.wait(atMost).size(), atMost);
    EXPECT_EQ(taken.wait(atMost + 1, 50ms).size(), atMost);
    for (std::size_t heard = atMost; heard < packets; heard = taken.wait(heard + 1).size())
      for (const auto& place : taken.all()) *place = Place();
    sender.join();
    EXPECT_EQ(taken.wait(packets).size(), packets) << "all of them, in the end";
  }
}

TEST(WCPacket, WhatIsNoPacketIsRefused) {
  for (const char* text :
       {"", "{}", "[]", "null", R"({"kind":"else","id":1})", R"({"kind":7})",
        R"({"kind":"userInfo","content":{}})", R"({"kind":"userInfo","id":-1,"content":{}})",
        R"({"kind":"userInfo","id":1})", R"({"kind":"userInfo","id":1,"content":[]})",
        R"({"kind":"received"})", R"({"kind":"message","content":"text"})",
        R"({"kind":"message","content":{}} tail)", "\xff\xfe"})
    EXPECT_FALSE(WCPacket::decoded(text)) << text;
  EXPECT_TRUE(WCPacket::decoded(R"({"kind":"received","id":0})"));
  const std::string deep(100, '[');
  EXPECT_FALSE(WCPacket::decoded(R"({"kind":"message","content":{"a":)" + deep));
}

TEST(WCPacketFraming, PacketsComeOffTheStreamWhereverItIsCut) {
  std::string stream;
  for (const char* text : {"one", "x", "three is longer"})
    stream += WCPacketFraming::framed(Data(std::string(text)))->string();
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    WCPacketFraming framing;
    std::string taken;
    const auto take = [&] {
      while (auto packet = framing.next()) taken += packet->string() + "|";
    };
    framing.append(stream.data(), cut);
    take();
    framing.append(stream.data() + cut, stream.size() - cut);
    take();
    EXPECT_EQ(taken, "one|x|three is longer|") << "cut at " << cut;
    EXPECT_FALSE(framing.isBroken());
  }
}

TEST(WCPacketFraming, TheMemoryOfALongPacketIsGivenBackWithIt) {
  const auto framed = WCPacketFraming::framed(Data(std::string(300 << 10, 'x')));
  WCPacketFraming framing;
  const auto before = mallinfo2().uordblks + mallinfo2().hblkhd;
  framing.append(framed->bytes(), framed->length());
  framing.append("\x05", 1);
  EXPECT_EQ(framing.next()->length(), 300U << 10);
  EXPECT_LT(mallinfo2().uordblks + mallinfo2().hblkhd, before + (100 << 10));
}

TEST(WCPacketFraming, ALengthThatCannotBeBreaksTheStreamForGood) {
  // 0, one more than the maximum, 1 GiB, and all bits.
  for (const auto& length : {std::string(4, '\0'), std::string("\x01\x00\x10\x00", 4),
                             std::string("\x00\x00\x00\x40", 4), std::string(4, '\xff')}) {
    WCPacketFraming framing;
    framing.append(length.data(), length.size());
    EXPECT_FALSE(framing.next());
    EXPECT_TRUE(framing.isBroken());
    const auto whole = WCPacketFraming::framed(Data(std::string("late")));
    framing.append(whole->bytes(), whole->length());
    EXPECT_FALSE(framing.next());
  }
  for (const std::size_t length : {std::size_t{0}, WCPacketFraming::kMaximumLength + 1})
    EXPECT_FALSE(WCPacketFraming::framed(Data(std::string(length, 'x'))));
}

}  // namespace
