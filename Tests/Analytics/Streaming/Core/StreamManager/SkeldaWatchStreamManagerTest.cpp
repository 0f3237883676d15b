#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"

#include <gmock/gmock.h>

#include "Analytics/Streaming/Core/StreamManager/SkeldaModules.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Platform/Foundation/Bundle.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/LogCapture.h"

namespace skelda::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::UnorderedElementsAre;

std::shared_ptr<SkeldaWatchStreamManager> managerWith(platform::Dictionary information) {
  information.set("CFBundleIdentifier", "com.example.run");
  platform::Bundle::setMain(std::make_shared<platform::Bundle>(
      "/Run.app/Watch.appex", "/Run.app/Watch.appex/run", std::move(information)));
  auto manager = SkeldaWatchStreamManager::streamManager();
  platform::Bundle::setMain(nullptr);
  return manager;
}

TEST(SkeldaWatchStreamManager, HoldsTheThresholdsWithinTheirRangeAndSaysSo) {
  const AgentHome home;
  const std::string event = "Skelda Watch Event Threshold";
  const std::string duration = "Skelda Watch Duration Threshold";
  const struct {
    std::string key;
    platform::Value value;
    std::int32_t events, minutes;
    std::string line;
  } cases[] = {
      {event, nullptr, 10, 10, ""},
      {event, 4, 5, 10, "Watch event threshold may not be below 5"},
      {event, 50, 50, 10, ""},
      {event, 51, 50, 10, "Watch event threshold may not be above 50"},
      {event, "20", 20, 10, ""},
      {event, "many", 5, 10, "Watch event threshold may not be below 5"},
      {event, 1e30, 50, 10, "Watch event threshold may not be above 50"},
      {duration, 4, 10, 5, "Watch duration threshold may not be below 5"},
      {duration, 60, 10, 60, ""},
      {duration, 61, 10, 60, "Watch duration threshold may not be above 60"},
  };
  for (const auto& given : cases) {
    LogCapture log;
    const auto manager = managerWith({{given.key, given.value}});
    EXPECT_EQ(manager->watchSessionEventThreshold(), given.events) << given.line;
    EXPECT_EQ(manager->watchSessionDurationThreshold(), given.minutes) << given.line;
    EXPECT_EQ(log.count("threshold may not be"), given.line.empty() ? 0U : 1U);
    EXPECT_TRUE(given.line.empty() || log.count(given.line) == 1) << given.line;
  }
}

TEST(SkeldaWatchStreamManager, ChainsAndStartsTheModulesOfTheTablesInTheirOrder) {
  const AgentHome home;
  const auto manager = managerWith({});
  EXPECT_THAT(manager->mandatoryStickySet(), UnorderedElementsAre(128, 132, 133, 139, 140, 141));
  EXPECT_THAT(SkeldaStreamFrameTypeUtil::frameTypesWithRole(SkeldaStreamFrameTypeUtil::kSticky),
              UnorderedElementsAre(132, 133, 139, 140, 141, 146, 148, 149, 156, 162));
  const std::vector<std::string> sources = {"SkeldaEventFrameSource",
                                            "SkeldaSessionInitInfoSource",
                                            "SkeldaStreamFlushSource",
                                            "SkeldaReportedIdentifiersSource",
                                            "SkeldaAppInfoSource",
                                            "SkeldaAppStateSource",
                                            "SkeldaDevicePropertiesSource",
                                            "SkeldaUserDemographicsSource",
                                            "SkeldaLocaleInfoSource",
                                            "SkeldaTimeZoneInfoSource",
                                            "SkeldaAppOrientationSource",
                                            "SkeldaNetworkStatusSource",
                                            "SkeldaSessionDevicePropertiesSource",
                                            "SkeldaConsentSource",
                                            "SkeldaUserPropertiesSource",
                                            "SkeldaCCPASource"};
  std::vector<std::vector<std::string>> chain;
  for (const std::string& source : sources) {
    chain.push_back({source, "I" + source});
    const auto module = manager->getObjectForSourceModule("I" + source);
    EXPECT_EQ(module->className(), source);
    EXPECT_TRUE(module->conformsToProtocol("ISkeldaFrameSource")) << source;
  }
  EXPECT_EQ(skelda::sourceChain(), chain);
  EXPECT_THAT(
      skelda::providerChain(),
      ElementsAre(
          ElementsAre("SkeldaAppStateDataProvider", "ISkeldaAppStateSource"),
          ElementsAre("SkeldaSessionInfoDataProvider", "ISkeldaSessionInitInfoSource"),
          ElementsAre("SkeldaSessionDevicePropertiesDataProvider",
                      "ISkeldaSessionDevicePropertiesSource"),
          ElementsAre("SkeldaNetworkReachabilityDataProvider", "ISkeldaNetworkStatusSource")));
  for (const auto& entry : skelda::providerChain()) {
    EXPECT_EQ(manager->getObjectForProviderModule(entry[0])->className(), entry[0]);
  }
  EXPECT_EQ(manager->getObjectForProviderModule("SkeldaNetworkReachabilityDataProvider"),
            SkeldaNetworkReachabilityDataProvider::sharedInstance());
  EXPECT_THAT(skelda::startOrder(),
              ElementsAre("ISkeldaReportedIdentifiersSource", "ISkeldaAppInfoSource",
                          "SkeldaAppStateDataProvider", "ISkeldaDevicePropertiesSource",
                          "ISkeldaLocaleInfoSource", "ISkeldaTimeZoneInfoSource",
                          "ISkeldaAppOrientationSource", "SkeldaNetworkReachabilityDataProvider",
                          "SkeldaSessionDevicePropertiesDataProvider"));
}

}  // namespace
}  // namespace skelda::testing
