#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"

#include <gtest/gtest.h>

#include "Analytics/Streaming/Data Providers/ISkeldaReachability.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Tests/Analytics/Streaming/Data Providers/RecordingObserver.h"

namespace skelda::testing {
namespace {

/// A provider of the test's own: the shared one keeps its state from test to test.
class Provider : public SkeldaNetworkReachabilityDataProvider {
 public:
  static std::shared_ptr<Provider> make() { return made(new Provider()); }
};

class Monitor : public platform::Object, public ISkeldaReachability {
 public:
  std::string_view className() const noexcept override { return "SkeldaReachability"; }
  void startup() override { ++starts; }
  int starts = 0;
};

TEST(SkeldaNetworkReachabilityDataProvider, JudgesByItsOwnErrorDomainWhileConnected) {
  const auto provider = Provider::make();
  EXPECT_TRUE(provider->isNetworkLikelyNotReachable());
  provider->setConnectedToNetwork(true);
  EXPECT_TRUE(provider->isNetworkReachable());
  EXPECT_FALSE(provider->isNetworkLikelyNotReachable());
  provider->setNetworkLikelyNotReachable();
  EXPECT_TRUE(provider->isNetworkLikelyNotReachable());
  EXPECT_EQ(provider->lastNetworkOperationError()->domain(), "kCFErrorDomainCFNetwork");
  EXPECT_EQ(provider->lastNetworkOperationError()->code(), 1);
  // The same text is another domain all the same.
  const auto namesake = platform::makeErrorDomain("kCFErrorDomainCFNetwork");
  provider->setLastNetworkOperationError(std::make_shared<platform::Error>(namesake, 1));
  EXPECT_FALSE(provider->isNetworkLikelyNotReachable());
}

TEST(SkeldaNetworkReachabilityDataProvider, StartsTheMonitorThatIsLinkedOnce) {
  const auto monitor = std::make_shared<Monitor>();
  auto& registry = platform::ClassRegistry::shared();
  registry.registerClass({"SkeldaReachability", {}, {}, [monitor] { return monitor; }});
  const auto provider = Provider::make();
  provider->startup();
  provider->startup();
  settle(*provider);
  EXPECT_EQ(monitor->starts, 1);
  EXPECT_EQ(provider->reachability(), monitor);
  registry.registerClass({"SkeldaReachability", {}, {}, nullptr});
}

}  // namespace
}  // namespace skelda::testing
