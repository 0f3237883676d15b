#include "Analytics/Streaming/Data Providers/SkeldaAppStateDataProvider.h"

#include <gtest/gtest.h>

#include "Platform/WatchKit/WKExtension.h"
#include "Tests/Analytics/Streaming/Data Providers/RecordingObserver.h"

namespace skelda::testing {
namespace {

TEST(SkeldaAppStateDataProvider, TellsOfEachStateThatDiffersFromTheLast) {
  const auto provider = SkeldaAppStateDataProvider::getInstance();
  const auto observer = std::make_shared<RecordingObserver>();
  provider->registerObserver(observer);
  struct Step {
    std::int32_t state, previous;
    std::size_t updates;
  };
  for (const auto& step : {Step{2, -1, 1}, Step{2, -1, 1}, Step{0, 2, 2}, Step{2, 0, 3}}) {
    provider->sendWatchState(step.state);
    settle(*provider);
    EXPECT_EQ(observer->updates(), step.updates);
    EXPECT_EQ(provider->appStateData()->currentState(), step.state);
    EXPECT_EQ(provider->appStateData()->previousState(), step.previous);
  }
}

TEST(SkeldaAppStateDataProvider, ReadsTheExtensionsStateOnTheMainQueueAtStartUp) {
  auto& extension = platform::WKExtension::sharedExtension();
  extension.setApplicationState(platform::WKExtension::ApplicationState::inactive);
  const auto provider = SkeldaAppStateDataProvider::getInstance();
  const auto observer = std::make_shared<RecordingObserver>();
  provider->registerObserver(observer);
  provider->startup();
  ASSERT_EQ(observer->updates(1), 1U);
  EXPECT_EQ(provider->appStateData()->currentState(), 1);
  EXPECT_EQ(provider->appStateData()->previousState(), -1);
  extension.setApplicationState(platform::WKExtension::ApplicationState::active);
}

}  // namespace
}  // namespace skelda::testing
