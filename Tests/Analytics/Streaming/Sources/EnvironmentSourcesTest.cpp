// The sources that describe the session, the application and its environment.

#include <gmock/gmock.h>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaSessionInitInfo.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamDeviceProperties.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppOrientationSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppStateSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaDevicePropertiesSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaLocaleInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaNetworkStatusSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSessionDevicePropertiesSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSessionInitInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaStreamFlushSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaTimeZoneInfoSource.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Tests/Analytics/Streaming/Data Providers/RecordingObserver.h"
#include "Tests/Analytics/Streaming/Sources/SourceRig.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

class MainBundle {
 public:
  explicit MainBundle(platform::Dictionary information) {
    platform::Bundle::setMain(std::make_shared<platform::Bundle>(
        "/Run.app/Watch.appex", "/Run.app/Watch.appex/run", std::move(information)));
  }
  ~MainBundle() { platform::Bundle::setMain(nullptr); }
};

/// A session device properties provider whose snapshots the test makes.
std::shared_ptr<SkeldaSessionDevicePropertiesData> snapshot(std::uint64_t freeMemory, bool start) {
  return SkeldaSessionDevicePropertiesData::dataWithFreeMemory(freeMemory, 0, 0, 0, 0, 0, 0, 0, -1,
                                                               false, "", "", "", start);
}

TEST(AppInfoSource, ReportsTheBundleOnceWithTheOverrideThatCameBeforeTheStart) {
  const MainBundle bundle({{"CFBundleShortVersionString", "2.1"},
                           {"CFBundleVersion", 77},
                           {"CFBundleIdentifier", "com.example.run"}});
  SourceRig<SkeldaAppInfoSource> rig;
  rig.source->setAppVersion("3.0");
  rig.source->setAppVersion("bad \xff");
  EXPECT_THAT(rig.sentTexts(), IsEmpty());
  rig.source->startup();
  rig.source->setAppVersion("4.0");
  EXPECT_THAT(rig.sentTexts(),
              ElementsAre("133 {\"sk.app.version\":\"2.1\",\"sk.bundle.id\":\"com.example.run\","
                          "\"sk.app.version.override\":\"3.0\",\"sk.app.version.code\":\"77\","
                          "\"sk.build.environment\":0}"));
}

TEST(DevicePropertiesSource, ReportsTheDeviceOnceAtStartUp) {
  ScopedEnvironment environment;
  environment.set("SKELDA_SCREEN", "396x484");
  const MainBundle bundle({{"CFBundleVersion", "77"}});
  SourceRig<SkeldaDevicePropertiesSource> rig;
  rig.source->startup();
  const auto properties = rig.last<SkeldaStreamDeviceProperties>();
  ASSERT_NE(properties, nullptr);
  EXPECT_TRUE(properties->isValidModel());
  EXPECT_EQ(properties->deviceArch(), "arm32");
  EXPECT_EQ(properties->appVersionFromBundle(), "77");
  EXPECT_EQ(properties->screenWidth(), 396U);
  EXPECT_EQ(properties->screenHeight(), 484U);
  EXPECT_EQ(rig.sent().size(), 1U);
}

TEST(LocaleAndTimeZoneSources, ReportAtStartUpAndAfterEachChange) {
  ScopedEnvironment environment;
  environment.set("LC_ALL", "nb_NO.UTF-8");
  environment.set("TZ", "Europe/Oslo");
  SourceRig<SkeldaLocaleInfoSource> locale;
  SourceRig<SkeldaTimeZoneInfoSource> zone;
  auto& center = platform::NotificationCenter::defaultCenter();
  center.post(platform::kCurrentLocaleDidChangeNotification);  // nobody listens before the start
  locale.source->startup();
  zone.source->startup();
  // The environment's own monitor may notice the test's changes as well, and repeat the last one.
  EXPECT_THAT(locale.sentTexts(), Each("148 {\"sk.country\":\"NO\",\"sk.language\":\"nb\"}"));
  EXPECT_THAT(zone.sentTexts(), Each("162 {\"sk.timezone.value\":\"Europe/Oslo\"}"));
  EXPECT_FALSE(locale.sent().empty() || zone.sent().empty());

  environment.set("LC_ALL", "de_CH");
  environment.set("TZ", "Europe/Zurich");
  center.post(platform::kCurrentLocaleDidChangeNotification);
  center.post(platform::kSystemTimeZoneDidChangeNotification);
  EXPECT_EQ(locale.sentTexts().back(), "148 {\"sk.country\":\"CH\",\"sk.language\":\"de\"}");
  EXPECT_EQ(zone.sentTexts().back(), "162 {\"sk.timezone.value\":\"Europe/Zurich\"}");

  // A notice that comes after a source is gone finds nobody.
  locale.source.reset();
  center.post(platform::kCurrentLocaleDidChangeNotification);
}

TEST(AppOrientationAndFlushSources, SendWhatTheyAreFor) {
  SourceRig<SkeldaAppOrientationSource> orientation;
  orientation.source->startup();
  EXPECT_THAT(orientation.sentTexts(), ElementsAre("156 {\"sk.app.orientation\":1}"));
  SourceRig<SkeldaStreamFlushSource> flush;
  flush.source->startup();
  EXPECT_THAT(flush.sentTexts(), IsEmpty());
  flush.source->flushWithStatus(5);
  EXPECT_THAT(flush.sentTexts(), ElementsAre("1 {\"sk.flush.frame.code\":5,"
                                             "\"sk.flush.frame.reason\":\"Force to flush\"}"));
}

TEST(AppStateAndNetworkStatusSources, ReportEachUpdateOfTheirProvider) {
  SourceRig<SkeldaAppStateSource> appState;
  const auto states = SkeldaAppStateDataProvider::getInstance();
  states->registerObserver(appState.source);
  states->sendWatchState(0);
  settle(*states);
  EXPECT_THAT(appState.sentTexts(),
              ElementsAre("132 {\"sk.app.current.state\":0,\"sk.app.previous.state\":-1}"));

  SourceRig<SkeldaNetworkStatusSource> network;
  const auto reachability = SkeldaNetworkReachabilityDataProvider::sharedInstance();
  reachability->setInternalNetworkStatus(2);
  network.source->dataProviderDidUpdate(reachability);
  EXPECT_THAT(network.sentTexts(), ElementsAre("149 {\"sk.network.status\":2}"));
  reachability->setInternalNetworkStatus(0);
}

TEST(ProviderFedSources, IgnoreProvidersOfAnotherClassAndProvidersWithoutFacts) {
  const auto states = SkeldaAppStateDataProvider::getInstance();
  const auto sessions = SkeldaSessionInfoDataProvider::getInstance();
  const auto devices = SkeldaSessionDevicePropertiesDataProvider::getInstance();
  const auto reachability = SkeldaNetworkReachabilityDataProvider::sharedInstance();
  SourceRig<SkeldaAppStateSource> appState;
  SourceRig<SkeldaSessionInitInfoSource> initInfo;
  SourceRig<SkeldaSessionDevicePropertiesSource> device;
  SourceRig<SkeldaNetworkStatusSource> network;
  for (const auto& provider :
       std::initializer_list<std::shared_ptr<SkeldaDataProvider>>{states, sessions, devices}) {
    appState.source->dataProviderDidUpdate(provider);
    initInfo.source->dataProviderDidUpdate(provider);
    device.source->dataProviderDidUpdate(provider);
    network.source->dataProviderDidUpdate(provider);
  }
  appState.source->dataProviderDidUpdate(reachability);
  EXPECT_TRUE(appState.sent().empty());
  EXPECT_TRUE(initInfo.sent().empty());
  EXPECT_TRUE(device.sent().empty());
  EXPECT_TRUE(network.sent().empty());
}

TEST(SessionInitInfoSource, SendsACopyOfTheFirstFactsOnly) {
  SourceRig<SkeldaSessionInitInfoSource> rig;
  EXPECT_EQ(rig.source->getSkeldaAgentVersionNumber(), "0");
  const auto provider = SkeldaSessionInfoDataProvider::getInstance();
  provider->registerObserver(rig.source);
  provider->setIncludeBackgroundSessionsInMetrics(true);
  provider->startUpWithApiKey("KEY");
  settle(*provider);
  settle(*rig.source);
  provider->setIncludeBackgroundSessionsInMetrics(false);
  settle(*provider);
  EXPECT_THAT(rig.sentTexts(), ElementsAre("141 {\"sk.apikey\":\"KEY\",\"sk.agent.platform\":2,"
                                           "\"sk.agent.report.key\":2,\"sk.agent.version\":261,"
                                           "\"sk.background.session.metrics\":true,"
                                           "\"sk.play.service.availability\":-1}"));
  EXPECT_EQ(rig.source->getSkeldaAgentVersionNumber(), "261");
  EXPECT_TRUE(rig.source->includeBackgroundSessionsInMetrics());
  EXPECT_EQ(rig.source->getSkeldaVersion(), "1.0");
  EXPECT_EQ(rig.source->getSkeldaAgentVersionWithBuild(), "261");
}

TEST(SessionDevicePropertiesSource, KeepsTheStartAndSendsAnEndTogetherWithIt) {
  SourceRig<SkeldaSessionDevicePropertiesSource> rig;
  const auto provider = SkeldaSessionDevicePropertiesDataProvider::getInstance();
  const auto update = [&](std::uint64_t freeMemory, bool start) {
    provider->setDevicePropertiesData(snapshot(freeMemory, start));
    rig.source->dataProviderDidUpdate(provider);
    return rig.last<SkeldaStreamSessionDeviceProperties>();
  };
  // An end that nothing came before counts as a start.
  auto message = update(1, false);
  EXPECT_EQ(message->startProperties()->freeMemory, 1U);
  EXPECT_FALSE(message->endProperties().has_value());
  message = update(2, false);
  EXPECT_EQ(message->startProperties()->freeMemory, 1U);
  EXPECT_EQ(message->endProperties()->freeMemory, 2U);
  message = update(3, true);
  EXPECT_EQ(message->startProperties()->freeMemory, 3U);
  EXPECT_FALSE(message->endProperties().has_value());

  rig.source->setSessionDevicePropertiesData(snapshot(4, true));
  EXPECT_EQ(rig.source->sessionDevicePropertiesData()->freeMemory(), 4U);
  message = update(5, false);
  EXPECT_EQ(message->startProperties()->freeMemory, 4U);
  EXPECT_EQ(rig.sent().size(), 4U);
}

}  // namespace
}  // namespace skelda::testing
