#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"

#include <gtest/gtest.h>

#include "Tests/Analytics/Streaming/Data Providers/RecordingObserver.h"

namespace skelda::testing {
namespace {

TEST(SkeldaSessionInfoDataProvider, HasFactsFromStartUpOnAndTellsOfEachChange) {
  const auto provider = SkeldaSessionInfoDataProvider::getInstance();
  EXPECT_NE(provider, SkeldaSessionInfoDataProvider::getInstance());
  const auto early = std::make_shared<RecordingObserver>();
  provider->registerObserver(early);
  // Before start-up the flag waits for the facts that carry it.
  provider->setIncludeBackgroundSessionsInMetrics(true);
  EXPECT_FALSE(provider->hasStartSessionBeenCalled());
  EXPECT_EQ(provider->sessionInfoData(), nullptr);
  settle(*provider);
  EXPECT_EQ(early->updates(), 0U);

  provider->startUpWithApiKey("KEY");
  EXPECT_TRUE(provider->hasStartSessionBeenCalled());
  const auto facts = provider->sessionInfoData();
  ASSERT_NE(facts, nullptr);
  EXPECT_EQ(facts->apiKey(), "KEY");
  EXPECT_EQ(facts->agentPlatform(), 2);
  EXPECT_EQ(facts->agentVersion(), 261);
  EXPECT_EQ(facts->agentReportType(), 2);
  EXPECT_TRUE(facts->includeBackgroundSessionsInMetrics());
  settle(*provider);
  EXPECT_EQ(early->updates(), 1U);
  const auto late = std::make_shared<RecordingObserver>();
  provider->registerObserver(late);
  settle(*provider);
  EXPECT_EQ(late->updates(), 1U);

  // A change makes new facts: those handed out stay what they were.
  provider->setIncludeBackgroundSessionsInMetrics(false);
  EXPECT_FALSE(provider->sessionInfoData()->includeBackgroundSessionsInMetrics());
  EXPECT_TRUE(facts->includeBackgroundSessionsInMetrics());
  settle(*provider);
  EXPECT_EQ(early->updates(), 2U);
  EXPECT_EQ(SkeldaSessionInfo::getAgentVersion(), "261");
}

}  // namespace
}  // namespace skelda::testing
