#include "Analytics/Reachability/SkeldaReachability.h"

#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Tests/Support/Testing.h"

namespace {

constexpr const char* kInside = "SKELDA_TEST_IN_NETWORK_NAMESPACE";

const auto run = [](const std::string& command) { return std::system(command.c_str()) == 0; };

struct Updates : ISkeldaDataProviderObserver, Recorded<bool> {
  void dataProviderDidUpdate(std::shared_ptr<SkeldaDataProvider>) override { add(true); }
};

class Notices {
 public:
  Notices()
      : token_(NotificationCenter::defaultCenter().addObserver(
            kSkeldaNetworkStatusChangedNotification, [this](const auto&) {
              const auto provider = SkeldaNetworkReachabilityDataProvider::sharedInstance();
              EXPECT_EQ(provider->isNetworkReachable(), provider->networkStatus() != 0);
              reachable_.add(provider->isNetworkReachable());
            })) {}
  ~Notices() { NotificationCenter::defaultCenter().removeObserver(token_); }
  bool wait(bool reachable) {
    return reachable_.waitUntil([&](auto& all) { return all.size() && all.back() == reachable; });
  }

 private:
  Recorded<bool> reachable_;
  NotificationCenter::Token token_;
};

TEST(SkeldaReachability, FollowsALinkThatGoesDownAndUp) {
  if (std::getenv(kInside) == nullptr) {
    if (!run("unshare -rn ip link add v0 type veth peer name v1 2>/dev/null"))
      GTEST_SKIP() << "no network namespace with a link in it may be made here";
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    EXPECT_TRUE(run(std::string(kInside) + "=1 unshare -rn '" + self +
                    "' --gtest_filter='SkeldaReachability.Follows*' >&2"));
    return;
  }
  Notices notices;
  const auto updates = std::make_shared<Updates>();
  const auto provider = SkeldaNetworkReachabilityDataProvider::sharedInstance();
  provider->registerObserver(updates);
  SkeldaReachability::registerClass();
  provider->startup();  // finds the monitor by name
  ASSERT_TRUE(notices.wait(false));
  EXPECT_TRUE(provider->reachabilitySetup());
  EXPECT_NE(provider->reachability(), nullptr);

  ASSERT_TRUE(run("ip link set lo up && ip link add v0 type veth peer name v1"));
  ASSERT_TRUE(run("ip addr add 192.0.2.1/24 dev v0 && ip link set v0 up && ip link set v1 up"));
  ASSERT_TRUE(notices.wait(true));
  EXPECT_EQ(provider->networkStatus(), SkeldaReachability::kReachableOverLocalNetwork);
  ASSERT_TRUE(run("ip link set v1 down"));  // the other end: no carrier
  ASSERT_TRUE(notices.wait(false));
  EXPECT_TRUE(provider->isNetworkLikelyNotReachable());
  ASSERT_TRUE(run("ip link set v1 up"));
  ASSERT_TRUE(notices.wait(true));
  ASSERT_TRUE(run("ip addr del 192.0.2.1/24 dev v0"));  // and with it the route
  ASSERT_TRUE(notices.wait(false));
  for (const std::string route :
       {"-6 route add default dev v0", "route add 198.51.100.0/24 nexthop dev v0 nexthop dev v1"}) {
    ASSERT_TRUE(run("ip " + route));
    ASSERT_TRUE(notices.wait(true));
    ASSERT_TRUE(run("ip -6 route flush default && ip route flush all"));
    ASSERT_TRUE(notices.wait(false));
  }
  EXPECT_GE(updates->size(), 6U);
  EXPECT_EQ(skelda::swallowedExceptions(), 0u);
}

}  // namespace
