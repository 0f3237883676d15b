#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"

#include <gtest/gtest.h>

#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"
#include "Tests/Analytics/Streaming/Data Providers/RecordingObserver.h"

namespace skelda::testing {
namespace {

class Provider : public SkeldaDataProvider {
 public:
  static std::shared_ptr<Provider> make() { return made(new Provider()); }
  std::string_view className() const noexcept override { return "Provider"; }
  bool canSendData() const override { return hasFacts; }
  std::atomic<bool> hasFacts{false};

 private:
  Provider() : SkeldaDataProvider("Provider") {}
};

TEST(SkeldaDataProvider, TellsEachObserverOncePerChangeUntilItIsRemoved) {
  const auto provider = Provider::make();
  const auto observer = std::make_shared<RecordingObserver>();
  const auto stranger = std::make_shared<RecordingObserver>();
  provider->registerObserver(observer);
  provider->registerObserver(observer);
  provider->registerObserver(nullptr);
  provider->removeObserver(stranger);
  provider->notifyObservers();
  settle(*provider);
  EXPECT_EQ(observer->updates(), 1U);
  EXPECT_EQ(observer->last(), provider);

  provider->removeObserver(observer);
  provider->notifyObservers();
  settle(*provider);
  EXPECT_EQ(observer->updates(), 1U);
}

TEST(SkeldaDataProvider, TellsALateObserverAtOnceWhenThereAreFactsAndAgainWhenItComesAgain) {
  const auto provider = Provider::make();
  provider->hasFacts = true;
  const auto observer = std::make_shared<RecordingObserver>();
  provider->registerObserver(observer);
  provider->registerObserver(observer);
  settle(*provider);
  EXPECT_EQ(observer->updates(), 2U);
}

TEST(SkeldaDataProvider, HoldsItsObservers) {
  const auto provider = Provider::make();
  auto observer = std::make_shared<RecordingObserver>();
  const std::weak_ptr<RecordingObserver> weak = observer;
  provider->registerObserver(std::move(observer));
  settle(*provider);
  EXPECT_FALSE(weak.expired());
}

TEST(SkeldaDataProviderDeathTest, IsNotAProviderItself) {
  EXPECT_DEATH(SkeldaDataProvider::getInstance(), "0");
}

TEST(SkeldaNetworkURLsDataProvider, AnswersWithTheAddressThatItsCallerSetLast) {
  const auto urls = SkeldaNetworkURLsDataProvider::sharedInstance();
  EXPECT_EQ(urls->serverURL(), "https://data.skelda.example/v1/skd.do");
  for (const std::string url : {"https://localhost:1/v1/skd.do", "not an address", ""}) {
    urls->setServerURL(url);
    EXPECT_EQ(SkeldaNetworkURLsDataProvider::sharedInstance()->serverURL(), url);
  }
  urls->setServerURL(std::string(SkeldaNetworkURLsDataProvider::kDefaultServerURL));
}

}  // namespace
}  // namespace skelda::testing
