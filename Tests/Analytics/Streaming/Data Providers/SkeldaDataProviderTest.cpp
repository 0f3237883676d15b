#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"

#include <gtest/gtest.h>

#include "Analytics/Streaming/Data Providers/SkeldaAppStateDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"
#include "Platform/WatchKit/WKExtension.h"
#include "Tests/Analytics/Streaming/Data Providers/RecordingObserver.h"

namespace skelda::testing {
namespace {

class Provider : public SkeldaDataProvider {
 public:
  static std::shared_ptr<Provider> make() { return made(new Provider()); }
  bool canSendData() const override { return hasFacts; }
  std::atomic<bool> hasFacts{false};

 private:
  Provider() : SkeldaDataProvider("Provider") {}
};

/// An observer of the provider, and how often it was told once all is quiet.
struct Observed {
  explicit Observed(std::shared_ptr<SkeldaDataProvider> watched) : provider(std::move(watched)) {
    provider->registerObserver(observer);
  }
  int updates() const {
    settle(*provider);
    return observer->updates();
  }
  std::shared_ptr<SkeldaDataProvider> provider;
  std::shared_ptr<RecordingObserver> observer = std::make_shared<RecordingObserver>();
};

TEST(SkeldaDataProvider, TellsEachObserverOncePerChangeUntilItIsRemoved) {
  const auto provider = Provider::make();
  const Observed observed(provider);
  provider->registerObserver(observed.observer);
  provider->registerObserver(nullptr);
  provider->removeObserver(std::make_shared<RecordingObserver>());
  provider->notifyObservers();
  EXPECT_EQ(observed.updates(), 1);
  EXPECT_GT(observed.observer.use_count(), 1) << "a provider holds its observers";
  provider->removeObserver(observed.observer);
  provider->notifyObservers();
  EXPECT_EQ(observed.updates(), 1);

  // Where there are facts, whoever comes is told at once, and again when it comes again.
  provider->hasFacts = true;
  const Observed late(provider);
  provider->registerObserver(late.observer);
  EXPECT_EQ(late.updates(), 2);
}

TEST(SkeldaSessionInfoDataProvider, HasFactsFromStartUpOnAndNewOnesWithEachChange) {
  const auto provider = SkeldaSessionInfoDataProvider::getInstance();
  const Observed observed(provider);
  provider->setIncludeBackgroundSessionsInMetrics(true);  // waits for the facts that carry it
  EXPECT_EQ(provider->sessionInfoData(), nullptr);
  EXPECT_EQ(observed.updates(), 0);
  provider->startUpWithApiKey("KEY");
  EXPECT_EQ(observed.updates(), 1);
  const auto facts = provider->sessionInfoData();
  provider->setIncludeBackgroundSessionsInMetrics(false);
  EXPECT_FALSE(provider->sessionInfoData()->includeBackgroundSessionsInMetrics());
  EXPECT_TRUE(facts->includeBackgroundSessionsInMetrics()) << "those handed out stay as they were";
  EXPECT_EQ(observed.updates(), 2);
}

TEST(SkeldaAppStateDataProvider, ReadsTheStateAtStartUpAndTellsOfEachThatDiffersFromTheLast) {
  auto& extension = platform::WKExtension::sharedExtension();
  extension.setApplicationState(platform::WKExtension::ApplicationState::background);
  const auto provider = SkeldaAppStateDataProvider::getInstance();
  const Observed observed(provider);
  provider->startup();
  ASSERT_EQ(observed.observer->updates(1), 1);
  extension.setApplicationState(platform::WKExtension::ApplicationState::active);
  struct Step {
    std::int32_t state, previous;
    int updates;
  };
  for (const auto& step : {Step{2, -1, 1}, Step{0, 2, 2}, Step{0, 2, 2}, Step{2, 0, 3}}) {
    provider->sendWatchState(step.state);
    EXPECT_EQ(observed.updates(), step.updates);
    EXPECT_EQ(provider->appStateData()->currentState(), step.state);
    EXPECT_EQ(provider->appStateData()->previousState(), step.previous);
  }
}

}  // namespace
}  // namespace skelda::testing
