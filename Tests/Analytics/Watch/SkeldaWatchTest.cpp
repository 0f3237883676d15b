#include "Skelda_Watch/Skelda_Watch.h"

#include "Analytics/Networking/DataSender/SkeldaDataSender.h"
#include "Analytics/Streaming/Core/StreamManager/SkeldaModules.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaAppInfoSource.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaStreamFlushSource.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaUserDemographicsSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaReportedIdentifiersSource.h"
#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivity.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/Foundation/StorageLock.h"
#include "Tests/Analytics/Watch/WatchHost.h"

namespace {

const Scenario firstEvents("the first events", [] {
  auto information = kWatch;
  information.set("Skelda Watch Debug", "yes");
  information.set("Skelda Watch User ID", "unseen-ann");
  const HostBundle host(information);
  SkeldaUserProperties::flag(SkeldaPropertySubscriber);
  SkeldaCCPA::setDataSaleOptOut(true);
  expect(SkeldaUtil::logLevel() == 0, "choices build no manager");
  const auto recorder = recordSources();
  expect(recorder->messages().empty(), "held");
  expect(SkeldaWatch::logWatchEvent("Lap", {{"lap", "unseen"}}) == 1, "first");
  expect(SkeldaUtil::logLevel() == 2, "the debug switch's level");
  expect(SkeldaWatch::logWatchEvent("Lap", {{"lap", "\xff"}}) == 1, "not UTF-8");
  expect(SkeldaWatch::logWatchEvent(std::string("L\0p", 3)) == 1, "second");

  // 2 events, user property, opt-out, user id, and one each of what start-up sends.
  std::map<std::int32_t, int> counts;
  std::vector<std::uint32_t> ids;
  for (const auto& message : recorder->messages(14)) {
    ++counts[message->frameType()];
    if (auto* event = dynamic_cast<SkeldaStreamEvent*>(message.get()))
      ids.push_back(event->eventId());
  }
  expect(ids == std::vector<std::uint32_t>{1, 2}, "ids in order from 1");
  const std::map<std::int32_t, int> expected{{132, 1}, {133, 1}, {134, 2}, {139, 1}, {141, 1},
                                             {146, 1}, {148, 1}, {149, 1}, {153, 1}, {156, 1},
                                             {162, 1}, {171, 1}, {174, 1}};
  expect(counts == expected, "each message once");
  expect(SkeldaDataSender::sharedInstance() != nullptr, "somebody sends");
  expect(skelda::swallowedExceptions() == 0, "nothing swallowed");
  return failures;
});

TEST(SkeldaWatch, TheFirstEventStartsTheAgentOnceAndLetsThroughWhatWasSaidBefore) {
  AgentHome home;
  const std::string left = home / "data/com.example.run/SkeldaFiles/.skelda-tmp-left";
  writeFile(left, "half-made by a process that is gone");
  const auto outcome = Scenario::run("the first events");
  EXPECT_FALSE(std::filesystem::exists(left));
  EXPECT_EQ(outcome.count("session init info:"), 1);
  EXPECT_EQ(outcome.count("its parameters are not UTF-8 text"), 1);
  for (const char* value : {"unseen", "dW5zZWVu"}) EXPECT_EQ(outcome.count(value), 0) << value;
}

void sayEverything(const std::string& text) {
  const auto number = static_cast<std::int32_t>(text.size());
  SkeldaUtil::setLogLevel(text.size() % 4);
  SkeldaWatch::setServerURL("http://127.0.0.1:9/" + text);  // where nobody listens
  SkeldaWatch::loadWatchDebug();
  SkeldaWatch::loadWatchDisableWatchConnectivity();
  SkeldaUserProperties::setValues(text, SkeldaArray{text});
  SkeldaUserProperties::addValue(text, text);
  SkeldaUserProperties::removeValue(text, text);
  SkeldaUserProperties::remove(text);
  SkeldaConsent::updateConsentInformation({true, {{text, text}}});
  SkeldaConsent::updateConsentInformation(SkeldaConsent::getConsent());
  SkeldaCCPA::setDataSaleOptOut(true);
  SkeldaCCPA::setDelete();
  const auto manager = SkeldaWatchStreamManager::manager();
  const auto user = manager->module<ISkeldaUserDemographicsSource>();
  user->setUserId(text);
  user->setGenderAsString(text);
  user->setAgeInYears(number);
  manager->module<ISkeldaAppInfoSource>()->setAppVersion(text);
  manager->module<ISkeldaStreamFlushSource>()->flushWithStatus(5);
  manager->module<SkeldaSessionInfoDataProvider>()->setIncludeBackgroundSessionsInMetrics(true);
  std::static_pointer_cast<SkeldaReportedIdentifiersSource>(
      manager->module<ISkeldaReportedIdentifiersSource>())
      ->didReceiveUserInfo({{"skelda://id1", text}, {"skelda://id2", "00" + text}});
  SkeldaWatchConnectivity::defaultConnectivty()->setup();
  SkeldaWatchConnectivity::defaultConnectivty()->transferUserInfo({{text, text}});
  const auto network = SkeldaNetworkReachabilityDataProvider::sharedInstance();
  network->setInternalNetworkStatus(number);
  network->notifyObservers();
  auto& center = NotificationCenter::defaultCenter();
  center.post(kCurrentLocaleDidChangeNotification);
  center.post(kSystemTimeZoneDidChangeNotification);
}

const Scenario manyThreads("eight threads", [] {
  Log::setSink([](std::string_view) {});  // lines are made, and read by nobody
  const HostBundle host(kWatch);
  constexpr unsigned kThreads = 8, kEvents = 100, kAll = kThreads * kEvents + 1;
  std::atomic<unsigned> accepted{0};
  std::shared_ptr<RecordingStage> recorder;
  inThreads(kThreads, [&](unsigned thread) {
    if (thread == 0) recorder = recordSources();  // comes at some point of the stream
    for (unsigned i = 0; i < kEvents; ++i) {
      accepted += SkeldaWatch::logWatchEvent("Lap", {{"i", i}});
      if (i % 50 == 0) sayEverything(std::string(1 + i / 50, 'a'));
    }
  });
  accepted += SkeldaWatch::logWatchEvent("last");
  expect(accepted == kAll, "all accepted");
  expect(SkeldaWatch::waitUntilStored(20s), "all gone through");
  const auto events = SkeldaWatch::account().events;
  expect(events.accepted == kAll && events.waiting == 0 && events.addsUp(), "an account of all");
  const auto lastOf = [](const auto& messages) {
    std::uint32_t last = 0;
    for (const auto& message : messages) {
      const auto* const event = dynamic_cast<SkeldaStreamEvent*>(message.get());
      if (event == nullptr) continue;
      expect(last == 0 || event->eventId() == last + 1, "no gap");
      last = event->eventId();
    }
    return last;
  };
  expect(becomes([&] { return lastOf(recorder->messages()) == kAll; }), "the last event");
  expect(skelda::swallowedExceptions() == 0, "nothing swallowed");
  return failures;
});

const Scenario startThatThrows("a start that throws", [] {
  const HostBundle host(kWatch);
  skelda::registerModules();
  // What the pipeline cannot do without: a module that throws would be left out, and no more.
  ClassRegistry::shared().registerClass({"SkeldaAppStateDataProvider", {}, {}, nullptr});
  SkeldaUserProperties::flag("x");
  expect(SkeldaWatch::logWatchEvent("Lap") == 0, "first");
  expect(SkeldaWatch::logWatchEvent("Lap") == 0, "second");
  expect(SkeldaWatch::account().refused.otherProcess == 2, "counted");
  const auto found = SkeldaWatch::status().findings;
  expect(std::ranges::count(found, "not-started", &SkeldaFinding::code) == 1, "told");
  SkeldaCCPA::setDelete();
  return failures;
});

TEST(SkeldaWatch, AStartThatThrowsCountsAsDoneAndIsSaidOnce) {
  AgentHome home;
  const auto line = "the agent could not be built, nothing is logged: wrong class being sent";
  EXPECT_EQ(Scenario::run("a start that throws").count(line), 1);
}

const Scenario choicesAlone("choices and then the end", [] {
  const HostBundle host(kWatch);
  SkeldaUserProperties::flag(SkeldaPropertySubscriber);
  SkeldaCCPA::setDelete();
  return 0;
});

TEST(SkeldaWatch, SaysWhatAnEarlierProcessHasLeftWaiting) {
  AgentHome home;
  EXPECT_EQ(Scenario::run("choices and then the end").count("brought back"), 0);
  const auto outcome = Scenario::run("choices and then the end");
  EXPECT_EQ(outcome.count("brought back 0 events and 2 choices"), 1) << outcome.output;
}

const Scenario folderOfAnother("a folder that another process holds", [] {
  const HostBundle host(kWatch);
  SkeldaCCPA::setDelete();
  expect(SkeldaWatch::logWatchEvent("Lap") == 0, "refused");
  expect(SkeldaWatch::account().refused.otherProcess == 2, "counted");
  return failures;
});

TEST(SkeldaWatch, LogsNothingWhereAnotherProcessHoldsTheFolder) {
  AgentHome home;
  const HostBundle host(kWatch);
  const std::string lock = SkeldaAgentFiles::lockFile();
  ASSERT_EQ(StorageLock::acquire(lock).status, StorageLock::Status::held);
  const auto outcome = Scenario::run("a folder that another process holds");
  StorageLock::release(lock);
  EXPECT_EQ(outcome.count(fmt::format("process {} holds the storage folder", ::getpid())), 1);
}

TEST(SkeldaWatch, IsSafeFromManyThreads) {
  const FoldersInMemory inMemory;
  AgentHome home;
  Scenario::run("eight threads");
}

TEST(SkeldaWatch, TheDebugSwitchIsANumberOrTheTextYes) {
  const std::pair<SkeldaValue, unsigned> cases[] = {{"YES", 2}, {"yEs", 2},  {1, 2},      {true, 2},
                                                    {"1", 0},   {"", 0},     {"YESS", 0}, {0, 0},
                                                    {false, 0}, {nullptr, 0}};
  for (const auto& [value, level] : cases) {
    const HostBundle host({{"Skelda Watch Debug", value}});
    SkeldaUtil::setLogLevel(0);
    SkeldaWatch::loadWatchDebug();
    EXPECT_EQ(SkeldaUtil::logLevel(), level) << value.description();
  }
  SkeldaUtil::setLogLevel(0);
}

TEST(SkeldaWatch, KnowsTheAgentsOwnUserInfoByItsKeys) {
  for (const char* key : {"skelda://id1", "skelda://id2", "skelda://id3", "skelda://id4"}) {
    const bool own = std::string_view(key) != "skelda://id4";
    for (const SkeldaValue& info : {SkeldaValue{{key, 1}}, SkeldaValue(SkeldaArray{7, key})})
      EXPECT_EQ(SkeldaWatch::isSkeldaUserInfo(info), own) << info.description();
    EXPECT_FALSE(SkeldaWatch::skeldaUserInfo(key));
  }
}

TEST(SkeldaWatch, RefusesAddressesAndConsentThatAreNotText) {
  const auto urls = SkeldaNetworkURLsDataProvider::sharedInstance();
  LogCapture log;
  SkeldaWatch::setServerURL("https://localhost/v1/skd.do");
  EXPECT_EQ(log.count("is no absolute http"), 0U);
  const std::string huge(1 << 20, 'h');
  const SkeldaDictionary odd{{"", ""}, {huge, huge}};
  EXPECT_TRUE(SkeldaConsent::updateConsentInformation({true, odd, true}));
  SkeldaWatch::setServerURL(7);
  SkeldaWatch::setServerURL("\xff");
  EXPECT_FALSE(SkeldaConsent::updateConsentInformation({false, {{"iab", "\xff"}}}));
  EXPECT_FALSE(SkeldaConsent::updateConsentInformation({false, {{"\xff", "x"}}}));
  EXPECT_FALSE(SkeldaConsent::updateConsentInformation({false, {{"iab", 1}}}));
  EXPECT_EQ(log.count("Server URL not set"), 2U);
  EXPECT_EQ(log.count("Consent not updated"), 3U);
  EXPECT_EQ(urls->serverURL(), "https://localhost/v1/skd.do");
  EXPECT_TRUE(SkeldaConsent::getConsent().isGDPRScope());
  EXPECT_EQ(SkeldaConsent::getConsent().consentStrings(), odd);
  urls->setServerURL(std::string(SkeldaNetworkURLsDataProvider::kDefaultServerURL));
}

}  // namespace

int main(int argc, char** argv) {
  if (const char* name = ::getenv(Scenario::kVariable)) return Scenario::all().at(name)();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
