#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaAppStateSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentCore.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaDevicePropertiesSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaLocaleInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaReportedIdentifiersSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSessionDevicePropertiesSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSessionInitInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaTimeZoneInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserDemographicsSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserPropertiesSource.h"
#include "Analytics/Utils/SkeldaKeychainWrapper.h"
#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivity.h"
#include "Tests/Analytics/Streaming/SourceModules/Sources/SourceRig.h"
#include "Tests/Platform/WatchConnectivity/SessionFixture.h"
#include "Tests/Support/AgentHome.h"

namespace {

using testing::Contains, testing::Each, testing::ElementsAre, testing::HasSubstr, testing::IsEmpty;

TEST(EnvironmentSources, ReportOnceAtStartUpWhatTheBundleAndTheDeviceSay) {
  ScopedEnvironment environment;
  environment.set("SKELDA_SCREEN", "396x484");
  const HostBundle bundle({{"CFBundleShortVersionString", "2.1"},
                           {"CFBundleVersion", 77},
                           {"CFBundleIdentifier", "com.example.run"}});
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
        R"("scr.height":"484","scr.width":"396")", R"("bnd.ver":"77")"})
    EXPECT_THAT(device.texts(), ElementsAre(HasSubstr(part)));
}

// The privacy page says so: observation goes on while the host is silent.
TEST(LocaleAndTimeZoneSources, ReportAtStartUpAndAfterEachChange) {
  ScopedEnvironment environment;
  environment.set("LC_ALL", "nb_NO.UTF-8");
  environment.set("TZ", "Europe/Oslo");
  SourceRig<SkeldaLocaleInfoSource> locale;
  SourceRig<SkeldaTimeZoneInfoSource> zone;
  auto& center = NotificationCenter::defaultCenter();
  center.post(kCurrentLocaleDidChangeNotification);  // nobody listens before the start
  EXPECT_THAT(locale.texts(), IsEmpty());
  locale->startup();
  zone->startup();
  // The environment's own monitor may notice the test's changes as well, and repeat the last one.
  EXPECT_THAT(locale.texts(), Each(R"(148 {"sk.country":"NO","sk.language":"nb"})"));
  EXPECT_THAT(zone.texts(), Each(R"(162 {"sk.timezone.value":"Europe/Oslo"})"));
  EXPECT_FALSE(locale.sent().empty() || zone.sent().empty());

  environment.set("LC_ALL", "de_CH");
  environment.set("TZ", "Europe/Zurich");
  center.post(kCurrentLocaleDidChangeNotification);
  center.post(kSystemTimeZoneDidChangeNotification);
  EXPECT_EQ(locale.texts().back(), R"(148 {"sk.country":"CH","sk.language":"de"})");
  EXPECT_EQ(zone.texts().back(), R"(162 {"sk.timezone.value":"Europe/Zurich"})");
  locale.source.reset();
  center.post(kCurrentLocaleDidChangeNotification);  // a source that is gone is not told
}

TEST(ProviderFedSources, ReportTheFactsOfTheirOwnProviderOnly) {
  const auto states = SkeldaAppStateDataProvider::getInstance();
  const auto sessions = SkeldaSessionInfoDataProvider::getInstance();
  SourceRig<SkeldaAppStateSource> appState;
  SourceRig<SkeldaSessionInitInfoSource> initInfo;
  const auto tellBothOfBoth = [&] {
    for (const auto& provider : {std::shared_ptr<SkeldaDataProvider>(states), {sessions}}) {
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
  EXPECT_EQ(initInfo.sent().size(), 1U);
  const auto facts = sessions->sessionInfoData();
  sessions->setIncludeBackgroundSessionsInMetrics(false);
  EXPECT_FALSE(sessions->sessionInfoData()->includeBackgroundSessionsInMetrics());
  EXPECT_TRUE(facts->includeBackgroundSessionsInMetrics()) << "those handed out stay as they were";
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

TEST(UserPropertiesSource, RefusesBadNamesAndValuesInEveryOperationAndSaysWhy) {
  SkeldaUtil::setLogLevel(2);
  LogCapture log;
  SourceRig<SkeldaUserPropertiesSource> rig;
  const std::tuple<Value, Value, std::string, bool> cases[] = {
      {"", Array{}, "due to invalid user property name", false},
      {nullptr, Array{}, "due to invalid user property name", false},
      {5, Array{}, "due to invalid user property name", false},
      {"\xc0\x80", Array{}, "its name is not UTF-8 text", false},
      {"p", nullptr, "name[(not shown)] due to invalid values array", true},
      {"p", "text", "name[(not shown)] due to invalid values array", true},
      {"p", Array{"a", 5, 6}, "invalid user property value = (not shown)", true},
      {"p", Array{nullptr}, "invalid user property value = (not shown)", true},
      {"p", Array{"\xff"}, "a value is not UTF-8 text", true}};
  for (const auto& [name, values, reason, nameIsGood] : cases) {
    log.take();
    rig->setUserProperties(name, values);
    rig->addUserProperties(name, values);
    rig->removeUserProperties(name, values);
    if (!nameIsGood) {
      rig->removeUserProperties(name);
      rig->flagUserProperties(name);
    }
    EXPECT_TRUE(rig.sent().empty()) << reason;
    EXPECT_EQ(log.count(reason), nameIsGood ? 3U : 5U) << reason;
  }
  SkeldaUtil::setLogLevel(0);
}

TEST(UserDemographicsSource, CarriesUserIdsOfAnyKindAndSizeAndTakesThemBack) {
  const std::string huge(1 << 20, 'h');
  SourceRig<SkeldaUserDemographicsSource> rig;
  rig->setUserId(nullptr);  // there was none: no news
  rig->setUserId("bad \xff");
  const std::pair<Value, std::string> ids[] = {{std::string("a\0b", 3), std::string("a\0b", 3)},
                                               {huge, huge},
                                               {Array{1, "a"}, "[1,\"a\"]"},
                                               {true, "1"}};
  for (const auto& [given, text] : ids) {
    rig->setUserId(given);
    EXPECT_EQ(rig->getUserId(), text);
  }
  rig->setUserId(Array{"bad \xff"});
  EXPECT_EQ(rig->getUserId(), "1");
  rig->setUserId(nullptr);
  EXPECT_EQ(rig->getUserId(), std::nullopt);
  EXPECT_THAT(rig.texts(), ElementsAre(R"(146 {"sk.demo.userid":"a\u0000b"})",
                                       R"(146 {"sk.demo.userid":")" + huge + R"("})",
                                       R"(146 {"sk.demo.userid":"[1,\"a\"]"})",
                                       R"(146 {"sk.demo.userid":"1"})", "146 nothing"));
}

struct Observer : ISkeldaConsentObserver, Recorded<std::thread::id> {
  explicit Observer(std::shared_ptr<SkeldaConsentCore> of) : core(std::move(of)) {}
  void consentUpdated() override {
    core->getConsent();  // the lock is free: the call comes from outside it
    add(std::this_thread::get_id());
  }
  const std::shared_ptr<SkeldaConsentCore> core;
};

TEST(ConsentCore, AnnouncesEveryUpdateOutsideItsLockAndAnswersWhetherItIsEnough) {
  const auto core = std::make_shared<SkeldaConsentCore>();
  EXPECT_EQ(core->consentProvided(), SkeldaConsentCore::kNotProvided);
  const auto early = std::make_shared<Observer>(core);
  core->registerObserver(early, Queue::serial("consent"));
  EXPECT_FALSE(core->updateUserConsent({true, {}}));
  EXPECT_EQ(core->consentProvided(), SkeldaConsentCore::kInGDPRScope);
  EXPECT_TRUE(core->updateUserConsent({true, {{"iab", "x"}}, true}));
  EXPECT_TRUE(core->updateUserConsent({false, {}}));
  EXPECT_EQ(core->consentProvided(), SkeldaConsentCore::kNotInGDPRScope);
  EXPECT_EQ(early->wait(3).size(), 3U);
  const auto late = std::make_shared<Observer>(core);
  core->registerObserver(late, nullptr);
  core->registerObserver(std::make_shared<Observer>(core), nullptr);
  EXPECT_THAT(late->wait(1), ElementsAre(testing::Ne(std::this_thread::get_id())));
  inThreads(4, [&](unsigned) {
    for (int i = 0; i < 50; ++i) core->updateUserConsent(core->getConsent());
  });
  EXPECT_EQ(late->wait(201).size(), 201U);
}

TEST(ConsentSource, SendsWhatWasGivenBeforeItsStartAndEachChange) {
  SourceRig<SkeldaConsentSource> consent;
  SkeldaConsentCore::sharedInstance()->updateUserConsent({true, {{"iab", "x"}}});
  consent->startup();
  consent.recorder->messages(1);
  SkeldaConsentCore::sharedInstance()->updateUserConsent({false, {}});
  consent.recorder->messages(2);
  EXPECT_THAT(consent.texts(),
              ElementsAre(R"(0 {"sk.consent.isGdprScope":true,"sk.consent.strings":{"iab":"x"}})",
                          R"(0 {"sk.consent.isGdprScope":false,"sk.consent.strings":{}})"));
}

using Rig = SourceRig<SkeldaReportedIdentifiersSource>;

TEST(ReportedIdentifiersSource, TakesThePhonesIdentifiersOnceAndReportsThemEverAfter) {
  static bool isRepeated = false;
  if (std::exchange(isRepeated, true)) GTEST_SKIP() << "a process connects its phone once";
  const AgentHome home;
  const PhoneOfAPair pair;
  installWatchConnectivity(pair.watchEnd_);
  pair.phone_->activateSession();
  const auto connectivity = SkeldaWatchConnectivity::defaultConnectivty();

  // A start that knows one of the two reports it and asks the phone for the other.
  SkeldaKeychainWrapper::keychainWrapperWithIdentifier(kSkeldaKeychainIdentifier)
      ->setString("OLD", SkeldaReportedIdentifiersSource::kWatchVendorIDItem);
  Rig first;
  first->startup();
  const auto reported = [](const std::string& identifiers) {
    return R"(140 {"sk.reported.id":{)" + identifiers + R"(},"sk.ad.tracking":false})";
  };
  const auto known = reported(R"("VendorId":"OLD")");
  EXPECT_THAT(first.texts(), ElementsAre(known));
  connectivity->queue()->sync([] {});

  // What holds no identifier changes nothing, and what cannot be one is not kept.
  EXPECT_FALSE(first->didReceiveUserInfo({{"host", "x"}}));
  const std::pair<Value, Value> bad[] = {
      {"", ""},      {nullptr, nullptr},           {Dictionary(), std::string("00\0", 4)},
      {7, "no hex"}, {Array{"VENDOR"}, "00f\xff"}, {"\xff", std::string((1 << 20) + 1, 'a')}};
  for (const auto& [vendor, other] : bad)
    EXPECT_TRUE(first->didReceiveUserInfo({{"skelda://id1", vendor}, {"skelda://id2", other}}));
  EXPECT_THAT(first.texts(), ElementsAre(known));
  EXPECT_EQ(first->watchVendorIDForSessionReport(), "OLD");
  EXPECT_EQ(first->watchInstallationIDForSessionReport(), std::nullopt);

  pair.watchEnd_->setJoined(true);
  pair.phone_->transferUserInfo({{"skelda://id1", "VENDOR"}, {"skelda://id2", "00ff10"}});
  const auto message = reported(R"("VendorId":"VENDOR","iOSInstallationId":"AP8Q")");
  ASSERT_EQ(first.recorder->messages(2).size(), 2U);
  EXPECT_THAT(first.texts(), ElementsAre(known, message));
  // The phone hears: activated, peer came, its own transfer finished, the acknowledgement.
  EXPECT_THAT(pair.atPhone_->wait(4), Contains("info {\"skelda://id3\":\"YES\"}"));

  Rig second;
  second->startup();
  EXPECT_THAT(second.texts(), ElementsAre(message));

  EXPECT_TRUE(second->didReceiveUserInfo({{"skelda://id2", "0A"}}));
  EXPECT_EQ(second.texts().back(), reported(R"("iOSInstallationId":"Cg==")"));
  EXPECT_EQ(second->watchInstallationIDForSessionReport(), "0A");
}

TEST(ReportedIdentifiersSource, KeepsBothIdentifiersInOneWriteOrNeitherAndSaysSo) {
  using Source = SkeldaReportedIdentifiersSource;
  for (const std::size_t failingRename : {1U, 2U}) {
    const AgentHome home;
    SkeldaUtil::setLogLevel(1);
    LogCapture log;
    // As a first start with an empty keychain takes them, but for the sealing key, which is there.
    EXPECT_NE(Source::installationIDForSessionReport(), "");
    Rig rig;
    const FaultyFileCalls plan;
    plan->failKind("rename", failingRename, {.error = ENOSPC, .times = Fault::kForEver});
    rig->didReceiveUserInfo({{"skelda://id1", "VENDOR"}, {"skelda://id2", "00ff10"}});
    EXPECT_EQ(rig.sent().size(), 1U);
    plan->clear();
    const bool kept = failingRename > 1;
    EXPECT_EQ(Source::watchVendorIDForSessionReport().has_value(), kept);
    EXPECT_EQ(Source::watchInstallationIDForSessionReport().has_value(), kept);
    EXPECT_EQ(log.count("the phone's identifiers cannot be kept"), kept ? 0U : 1U);
  }
}

/// Asks soon for what it does not know yet, and yet not before it is there.
class ImpatientSource : public SkeldaReportedIdentifiersSource {
 public:
  static std::shared_ptr<ImpatientSource> getSourceInstance() { return made(new ImpatientSource); }

 private:
  ImpatientSource() { pollInterval_ = 300ms; }
};

TEST(ReportedIdentifiersSource, AsksAgainForWhatItDoesNotKnowYetInsideItsQueue) {
  const AgentHome home;
  const SystemFolder machine;
  SourceRig<ImpatientSource> rig;
  rig->queryAndSendIDs();
  ASSERT_EQ(rig.recorder->messages(1).size(), 1U);
  writeFile(machine / "etc/machine-id", std::string(32, 'a') + "\n");
  EXPECT_EQ(rig.recorder->messages(3).size(), 3U);
}

TEST(ReportedIdentifiersSource, ReportsThisDevicesOwnIdentifiersWhenAsked) {
  const AgentHome home;
  const auto own = SkeldaReportedIdentifiersSource::installationIDForSessionReport();
  const FaultyFileCalls plan("open", Fault::always(EMFILE));
  EXPECT_EQ(SkeldaReportedIdentifiersSource::installationIDForSessionReport(), "");
  plan->clear();
  EXPECT_EQ(own, SkeldaReportedIdentifiersSource::installationIDForSessionReport());
  Rig rig;
  rig->queryAndSendIDs();
  const auto identifiers = rig.last<SkeldaStreamReportedIdentifers>();
  std::set<std::uint32_t> types, expected{15};
  for (const auto& id : identifiers->reportedIDs()) types.insert(id.reportedIDType());
  if (SkeldaUtil::getSkeldaId()) expected.insert(7);
  if (SkeldaUtil::getIdentifierForVendor()) expected.insert(6);
  EXPECT_EQ(types, expected);
}

}  // namespace
