// The sources that describe the session, the application and its environment.

#include <gmock/gmock.h>

#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppStateSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaDevicePropertiesSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaLocaleInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSessionDevicePropertiesSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSessionInitInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaTimeZoneInfoSource.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Tests/Analytics/Streaming/SourceModules/Sources/SourceRig.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {
namespace {

using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

TEST(EnvironmentSources, ReportOnceAtStartUpWhatTheBundleAndTheDeviceSay) {
  ScopedEnvironment environment;
  environment.set("SKELDA_SCREEN", "396x484");
  platform::Bundle::setMain(std::make_shared<platform::Bundle>(
      "/Run.app/Watch.appex", "/Run.app/Watch.appex/run",
      platform::Dictionary{{"CFBundleShortVersionString", "2.1"},
                           {"CFBundleVersion", 77},
                           {"CFBundleIdentifier", "com.example.run"}}));
  SourceRig<SkeldaAppInfoSource> app;
  app->setAppVersion("3.0");
  app->setAppVersion("bad \xff");
  EXPECT_THAT(app.texts(), IsEmpty());
  app->startup();
  app->setAppVersion("4.0");
  EXPECT_THAT(app.texts(),
              ElementsAre(R"(133 {"sk.app.version":"2.1","sk.bundle.id":"com.example.run",)"
                          R"("sk.app.version.override":"3.0","sk.app.version.code":"77",)"
                          R"("sk.build.environment":0})"));

  SourceRig<SkeldaDevicePropertiesSource> device;
  device->startup();
  for (const char* part :
       {R"("device.arch":"arm32")", R"("device.os.version":)", R"("device.model.1":)",
        R"("scr.height":"484","scr.width":"396")", R"("bnd.ver":"77")"}) {
    EXPECT_THAT(device.texts(), ElementsAre(HasSubstr(part)));
  }
  platform::Bundle::setMain(nullptr);
}

// The privacy page says so: observation goes on while the host is silent.
TEST(LocaleAndTimeZoneSources, ReportAtStartUpAndAfterEachChange) {
  ScopedEnvironment environment;
  environment.set("LC_ALL", "nb_NO.UTF-8");
  environment.set("TZ", "Europe/Oslo");
  SourceRig<SkeldaLocaleInfoSource> locale;
  SourceRig<SkeldaTimeZoneInfoSource> zone;
  auto& center = platform::NotificationCenter::defaultCenter();
  center.post(platform::kCurrentLocaleDidChangeNotification);  // nobody listens before the start
  EXPECT_THAT(locale.texts(), IsEmpty());
  locale->startup();
  zone->startup();
  // The environment's own monitor may notice the test's changes as well, and repeat the last one.
  EXPECT_THAT(locale.texts(), Each(R"(148 {"sk.country":"NO","sk.language":"nb"})"));
  EXPECT_THAT(zone.texts(), Each(R"(162 {"sk.timezone.value":"Europe/Oslo"})"));
  EXPECT_FALSE(locale.sent().empty() || zone.sent().empty());

  environment.set("LC_ALL", "de_CH");
  environment.set("TZ", "Europe/Zurich");
  center.post(platform::kCurrentLocaleDidChangeNotification);
  center.post(platform::kSystemTimeZoneDidChangeNotification);
  EXPECT_EQ(locale.texts().back(), R"(148 {"sk.country":"CH","sk.language":"de"})");
  EXPECT_EQ(zone.texts().back(), R"(162 {"sk.timezone.value":"Europe/Zurich"})");
  locale.source.reset();
  center.post(platform::kCurrentLocaleDidChangeNotification);  // a source that is gone is not told
}

TEST(ProviderFedSources, ReportTheFactsOfTheirOwnProviderOnly) {
  const auto states = SkeldaAppStateDataProvider::getInstance();
  const auto sessions = SkeldaSessionInfoDataProvider::getInstance();
  const std::shared_ptr<SkeldaDataProvider> providers[] = {states, sessions};
  SourceRig<SkeldaAppStateSource> appState;
  SourceRig<SkeldaSessionInitInfoSource> initInfo;
  const auto tellBothOfBoth = [&] {
    for (const auto& provider : providers) {
      appState->dataProviderDidUpdate(provider);
      initInfo->dataProviderDidUpdate(provider);
    }
  };
  tellBothOfBoth();  // nobody has facts yet
  EXPECT_TRUE(appState.sent().empty() && initInfo.sent().empty());

  states->sendWatchState(0);
  sessions->setIncludeBackgroundSessionsInMetrics(true);
  sessions->startUpWithApiKey("KEY");
  tellBothOfBoth();
  EXPECT_THAT(appState.texts(),
              ElementsAre(R"(132 {"sk.app.current.state":0,"sk.app.previous.state":-1})"));
  // The session's facts are reported once, as they are at first.
  EXPECT_EQ(initInfo.sent().size(), 1U);
  sessions->setIncludeBackgroundSessionsInMetrics(false);
  tellBothOfBoth();
  EXPECT_THAT(initInfo.texts(),
              ElementsAre(R"(141 {"sk.apikey":"KEY","sk.agent.platform":2,"sk.agent.report.key":2,)"
                          R"("sk.agent.version":261,"sk.background.session.metrics":true,)"
                          R"("sk.play.service.availability":-1})"));
}

TEST(SessionDevicePropertiesSource, KeepsTheStartAndSendsAnEndTogetherWithIt) {
  SourceRig<SkeldaSessionDevicePropertiesSource> rig;
  const auto provider = SkeldaSessionDevicePropertiesDataProvider::getInstance();
  const auto snapshot = [](std::uint64_t freeMemory, bool start) {
    return SkeldaSessionDevicePropertiesData::dataWithFreeMemory(freeMemory, 0, 0, 0, 0, 0, 0, 0,
                                                                 -1, false, "", "", "", start);
  };
  /// Free memory at the start and at the end, 0 without one.
  const auto afterUpdate = [&](std::uint64_t freeMemory, bool start) {
    provider->setDevicePropertiesData(snapshot(freeMemory, start));
    rig->dataProviderDidUpdate(provider);
    const auto message = rig.last<SkeldaStreamSessionDeviceProperties>();
    const auto end = message->endProperties();
    return std::pair(message->startProperties()->freeMemory, end ? end->freeMemory : 0);
  };
  EXPECT_EQ(afterUpdate(1, false), std::pair(1UL, 0UL)) << "an end that comes first is a start";
  EXPECT_EQ(afterUpdate(2, false), std::pair(1UL, 2UL));
  EXPECT_EQ(afterUpdate(3, true), std::pair(3UL, 0UL));
  rig->setSessionDevicePropertiesData(snapshot(4, true));
  EXPECT_EQ(rig->sessionDevicePropertiesData()->freeMemory(), 4U);
  EXPECT_EQ(afterUpdate(5, false), std::pair(4UL, 5UL));
}

}  // namespace
}  // namespace skelda::testing
