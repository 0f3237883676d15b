#include "Skelda_Watch/SkeldaWatch.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <thread>

#include "Analytics/Streaming/Core/StreamManager/SkeldaModules.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"
#include "Analytics/Utils/SkeldaActor/SkeldaGuardedBlock.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/Foundation/StorageLock.h"
#include "Skelda_Watch/Skelda_Watch.h"
#include "Tests/Analytics/Watch/WatchHost.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/Scenario.h"

namespace skelda::testing {
namespace {

using ::testing::HasSubstr;

// -- Refusals

const Scenario withoutKey("without a key", [] {
  becomeHost({});
  SkeldaUtil::setLogLevel(2);
  Expectations expect;
  expect.equal("no key", SkeldaWatch::apiKey(), std::nullopt);
  becomeHost(watchInformation());  // too late: the key is read once
  expect.equal("refused", SkeldaWatch::logWatchEvent("Lap"), 0U);
  return expect.failures;
});

const Scenario outsideAnExtension("outside an extension", [] {
  becomeHost(watchInformation(), /*isExtension=*/false);
  SkeldaUtil::setLogLevel(2);
  Expectations expect;
  expect.equal("key", SkeldaWatch::apiKey(), "KEY");
  expect.equal("refused", SkeldaWatch::logWatchEvent("Lap"), 0U);
  return expect.failures;
});

const Scenario withBadNames("with bad names", [] {
  becomeHost(watchInformation());
  SkeldaUtil::setLogLevel(2);
  Expectations expect;
  expect.equal("empty", SkeldaWatch::logWatchEvent(""), 0U);
  expect.equal("null", SkeldaWatch::logWatchEvent(nullptr), 0U);
  expect.equal("number", SkeldaWatch::logWatchEvent(7, {{"lap", 1}}), 0U);
  return expect.failures;
});

TEST(SkeldaWatch, RefusesEventsThatCannotBeLoggedSaysWhyAndStartsNothing) {
  const struct {
    const char* scenario;
    std::vector<std::string> lines;
  } cases[] = {
      {"without a key",
       {"API Key not provided in plist with key Skelda Watch API Key, unable to create watch "
        "session",
        "No API key provided in plist, unable to log event"}},
      {"outside an extension",
       {"Skelda: Event not logged -- this method can only be used in watch extension."}},
      {"with bad names",
       {"Skelda: Event not logged -- eventName must be of NSString type.",
        "Skelda: Event not logged -- eventName may not be empty."}},
  };
  for (const auto& refused : cases) {
    AgentHome home;
    const auto outcome = Scenario::run(refused.scenario);
    EXPECT_EQ(outcome.status, 0) << outcome.output;
    for (const auto& line : refused.lines) EXPECT_THAT(outcome.output, HasSubstr(line));
    EXPECT_FALSE(std::filesystem::exists(home / "data")) << refused.scenario;
  }
}

// -- Starting

const Scenario firstEvents("the first events", [] {
  auto information = watchInformation();
  information.set("Skelda Watch Debug", "yes");
  information.set("Skelda Watch User ID", "ann");
  information.set("Skelda Watch App Version", "9.9");
  becomeHost(information);
  Expectations expect;
  SkeldaUserProperties::flag(SkeldaPropertySubscriber);
  SkeldaCCPA::setDataSaleOptOut(true);
  expect.equal("the manager's level", SkeldaUtil::logLevel(), 3U);
  const auto recorder = recordSources();
  expect.equal("held", recorder->messages().size(), 0U);

  expect.equal("first", SkeldaWatch::logWatchEvent("Lap", {{"lap", 1}}), 1U);
  expect.equal("the debug switch's level", SkeldaUtil::logLevel(), 2U);
  expect.equal("not UTF-8", SkeldaWatch::logWatchEvent("Lap", {{"lap", "\xff"}}), 1U);
  expect.equal("second", SkeldaWatch::logWatchEvent(std::string("L\0p", 3)), 1U);

  // 2 events, user property, opt-out, user id, app info, app state, device, locale, time zone,
  // orientation, network, session device properties, session init info.
  std::map<std::int32_t, int> counts;
  for (const auto& message : recorder->messages(14)) ++counts[message->frameType()];
  const std::map<std::int32_t, int> once{{132, 1}, {133, 1}, {134, 2}, {139, 1}, {141, 1},
                                         {146, 1}, {148, 1}, {149, 1}, {153, 1}, {156, 1},
                                         {162, 1}, {171, 1}, {174, 1}};
  expect.equal("each start-up message once", counts, once);
  const auto events = eventsAmong(recorder->messages());
  expect.equal("names", events.at(0)->eventName() == "TGFw" && events.at(1)->eventName() == "TABw",
               true);
  expect.equal("swallowed", SkeldaActor::swallowedExceptions() + guardedExceptions(), 0U);
  return expect.failures;
});

TEST(SkeldaWatch, TheFirstEventStartsTheAgentOnceAndLetsThroughWhatWasSaidBefore) {
  AgentHome home;
  const auto outcome = Scenario::run("the first events");
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_EQ(outcome.count("Skelda: what is said before the first event waits in memory"), 1U);
  EXPECT_EQ(outcome.count("session init info:"), 1U);
  EXPECT_EQ(outcome.count("its parameters are not UTF-8 text"), 1U);
}

const Scenario manyThreads("eight threads", [] {
  platform::Log::setSink({});
  becomeHost(watchInformation());
  Expectations expect;
  constexpr int kThreads = 8, kEvents = 250;
  std::atomic<unsigned> accepted{0};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kEvents; ++i) {
        accepted += SkeldaWatch::logWatchEvent("t" + std::to_string(thread), {{"i", i}});
        if (i % 50 == 0) SkeldaUserProperties::setValue("thread", std::to_string(thread));
      }
    });
  }
  // Whoever asks while another thread starts the agent waits for it.
  const auto recorder = recordSources();
  for (auto& thread : threads) thread.join();
  expect.equal("accepted", accepted.load(), unsigned{kThreads * kEvents});
  // The recorder came at some point of the stream: from there on nothing is missing.
  expect.equal("marker", SkeldaWatch::logWatchEvent("marker"), 1U);
  std::vector<std::shared_ptr<SkeldaStreamEvent>> events;
  for (std::size_t wanted = 1; events.empty() || events.back()->eventId() < kThreads * kEvents + 1;
       ++wanted) {
    const auto messages = recorder->messages(wanted);
    if (messages.size() < wanted) break;
    wanted = messages.size();
    events = eventsAmong(messages);
  }
  expect.equal("the last event", events.back()->eventId(), unsigned{kThreads * kEvents + 1});
  for (std::size_t i = 1; i < events.size(); ++i) {
    expect.equal("no gap", events[i]->eventId(), events[i - 1]->eventId() + 1);
  }
  return expect.failures;
});

TEST(SkeldaWatch, LosesAndReordersNothingThatEightThreadsLogAtOnce) {
  AgentHome home;
  const auto outcome = Scenario::run("eight threads");
  EXPECT_EQ(outcome.status, 0) << outcome.output;
}

const Scenario startThatThrows("a start that throws", [] {
  becomeHost(watchInformation());
  skelda::registerModules();
  platform::ClassRegistry::shared().registerClass(
      {"SkeldaAppInfoSource", {}, {"ISkeldaFrameSource"}, []() -> platform::ObjectRef {
         throw std::runtime_error("broken");
       }});
  Expectations expect;
  expect.equal("first", SkeldaWatch::logWatchEvent("Lap"), 0U);
  expect.equal("second", SkeldaWatch::logWatchEvent("Lap"), 0U);
  SkeldaUserProperties::flag("x");
  SkeldaCCPA::setDelete();
  return expect.failures;
});

const Scenario secondProcess("a second process", [] {
  becomeHost(watchInformation());
  Expectations expect;
  SkeldaUserProperties::flag("x");
  expect.equal("first", SkeldaWatch::logWatchEvent("Lap"), 0U);
  expect.equal("second", SkeldaWatch::logWatchEvent("Lap"), 0U);
  return expect.failures;
});

TEST(SkeldaWatch, AStartThatThrowsCountsAsDoneAndIsSaidOnce) {
  AgentHome home;
  const auto outcome = Scenario::run("a start that throws");
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_EQ(outcome.count("Skelda: the agent could not be built, nothing is logged"), 1U);
}

TEST(SkeldaWatch, ASecondProcessIsRefusedAndSaysOnceWhoHoldsTheStorage) {
  AgentHome home;
  // The folder as the other process names it: by its bundle's identifier.
  const std::string folder = home / "data/com.example.run/SkeldaFiles";
  std::filesystem::create_directories(folder);
  ASSERT_EQ(platform::StorageLock::acquire(folder).status, platform::StorageLock::Status::held);
  const auto outcome = Scenario::run("a second process");
  platform::StorageLock::release(folder);
  EXPECT_EQ(outcome.status, 0) << outcome.output;
  EXPECT_EQ(outcome.count("Skelda: process " + std::to_string(::getpid()) + " holds the storage"),
            1U);

  // Once the other has gone, its left-over temporary files are swept away.
  writeFile(folder + "/.skelda-tmp-left", "x");
  const auto after = Scenario::run("the first events");
  EXPECT_EQ(after.status, 0) << after.output;
  EXPECT_FALSE(std::filesystem::exists(folder + "/.skelda-tmp-left"));
}

// -- Odd moments

const Scenario fromASink("from a sink", [] {
  becomeHost(watchInformation());
  Expectations expect;
  static std::atomic<unsigned> accepted{0};
  static std::atomic<int> lines{0};
  platform::Log::setSink([](std::string_view) {
    ++lines;
    accepted += SkeldaWatch::logWatchEvent("from the sink");
    SkeldaUserProperties::flag("from the sink");
    SkeldaCCPA::setDelete();
    accepted += SkeldaConsent::updateConsentInformation({false, {}}) ? 1U : 0U;
  });
  expect.equal("outside", SkeldaWatch::logWatchEvent("Lap"), 1U);
  const auto recorder = recordSources();
  expect.equal("outside", SkeldaWatch::logWatchEvent("Lap"), 1U);
  recorder->messages(8);
  expect.equal("inside", accepted.load(), 0U);
  expect.equal("lines", lines.load() > 0, true);
  return expect.failures;
});

/// Made before main() begins, in the process of that scenario only.
const unsigned resultBeforeMain = [] {
  if (Scenario::requested() != "from a static initialiser") return 0U;
  becomeHost(watchInformation());
  return SkeldaWatch::logWatchEvent("before main");
}();

const Scenario fromAStaticInitialiser("from a static initialiser", [] {
  Expectations expect;
  expect.equal("before main", resultBeforeMain, 1U);
  expect.equal("in main", SkeldaWatch::logWatchEvent("in main"), 1U);
  return expect.failures;
});

const Scenario duringExit("during exit", []() -> int {
  platform::Log::setSink({});
  becomeHost(watchInformation());
  std::atexit([] {
    for (int i = 0; i < 100; ++i) {
      if (SkeldaWatch::logWatchEvent("at exit") != 1U) std::printf("refused at exit\n");
    }
    SkeldaUserProperties::flag("at exit");
  });
  SkeldaWatch::logWatchEvent("Lap");
  static std::atomic<int> running{0};
  for (int thread = 0; thread < 3; ++thread) {
    std::thread([] {
      ++running;
      for (;;) SkeldaWatch::logWatchEvent("never ends");
    }).detach();
  }
  while (running < 3) std::this_thread::yield();
  std::exit(0);
});

TEST(SkeldaWatch, IsSafeFromSinksFromStaticInitialisersAndDuringExit) {
  for (const char* scenario : {"from a sink", "from a static initialiser", "during exit"}) {
    AgentHome home;
    const auto outcome = Scenario::run(scenario);
    EXPECT_EQ(outcome.status, 0) << scenario << "\n" << outcome.output;
    EXPECT_EQ(outcome.count("refused at exit"), 0U);
  }
}

// -- Settings and small questions

class MainBundleTest : public ::testing::Test {
 protected:
  ~MainBundleTest() override {
    platform::Bundle::setMain(nullptr);
    SkeldaUtil::setLogLevel(0);
  }
};

TEST_F(MainBundleTest, TheDebugSwitchIsANumberOrTheTextYes) {
  const struct {
    SkeldaValue value;
    bool isOn;
  } cases[] = {{"YES", true}, {"yEs", true},  {1, true},        {true, true},
               {0.5, true},   {"1", false},   {"", false},      {"YESS", false},
               {0, false},    {false, false}, {nullptr, false}, {SkeldaArray{"YES"}, false}};
  for (const auto& given : cases) {
    becomeHost({{"Skelda Watch Debug", given.value}});
    SkeldaUtil::setLogLevel(0);
    SkeldaWatch::loadWatchDebug();
    EXPECT_EQ(SkeldaUtil::logLevel(), given.isOn ? 2U : 0U) << given.value.description();
  }
  becomeHost({{"Skelda Watch User ID", 12}});
  EXPECT_EQ(SkeldaWatch::loadWatchUserID(), SkeldaValue(12));
  EXPECT_TRUE(SkeldaWatch::loadAppVersionOverride().isNull());
}

TEST(SkeldaWatch, KnowsTheMarkerKeysOfItsMessagesToThePhone) {
  const struct {
    SkeldaValue collection;
    bool isMarked;
  } cases[] = {{SkeldaArray{}, false},
               {SkeldaArray{"a", 7, "skelda://id1"}, true},
               {SkeldaArray{"skelda://id2"}, true},
               {{{"host", 1}, {"skelda://id3", "YES"}}, true},
               {{{"host", "skelda://id1"}}, false},
               {SkeldaArray{"skelda://id4", "SKELDA://ID1"}, false},
               {"skelda://id1", false},
               {nullptr, false}};
  for (const auto& asked : cases) {
    EXPECT_EQ(SkeldaWatch::checkIsSkeldaUserInfo(asked.collection), asked.isMarked);
    EXPECT_EQ(SkeldaWatch::isSkeldaUserInfo(asked.collection), asked.isMarked);
    EXPECT_EQ(SkeldaWatch::skeldaUserInfo(asked.collection), asked.isMarked);
  }
}

TEST(SkeldaWatch, TakesAnyTextForTheServersAddressAndNothingElse) {
  const auto urls = SkeldaNetworkURLsDataProvider::sharedInstance();
  SkeldaWatch::setServerURL("https://localhost/v1/skd.do");
  LogCapture log;
  SkeldaWatch::setServerURL(7);
  SkeldaWatch::setServerURL("\xff");
  EXPECT_EQ(log.count("Server URL not set"), 2U);
  EXPECT_EQ(urls->serverURL(), "https://localhost/v1/skd.do");
  urls->setServerURL(std::string(SkeldaNetworkURLsDataProvider::kDefaultServerURL));
}

TEST(SkeldaConsent, IsStoredUnlessItsStringsAreNotText) {
  EXPECT_FALSE(SkeldaConsent::updateConsentInformation({true, {}}));
  EXPECT_TRUE(SkeldaConsent::getConsent().isGDPRScope());
  EXPECT_TRUE(SkeldaConsent::updateConsentInformation({true, {{"iab", "x"}}, true}));
  LogCapture log;
  EXPECT_FALSE(SkeldaConsent::updateConsentInformation({false, {{"iab", "\xff"}}}));
  EXPECT_FALSE(SkeldaConsent::updateConsentInformation({false, {{"\xff", "x"}}}));
  EXPECT_FALSE(SkeldaConsent::updateConsentInformation({false, {{"iab", 1}}}));
  EXPECT_EQ(log.count("Consent not updated"), 3U);
  EXPECT_TRUE(SkeldaConsent::getConsent().isLICNEnabled());
  EXPECT_TRUE(SkeldaConsent::getConsent().isGDPRScope());
}

TEST(ExportedConstants, HaveTheirFixedValues) {
  EXPECT_STREQ(Skelda_WatchVersionString, "@(#)PROGRAM:Skelda_Watch  PROJECT:Skelda-1\n");
  EXPECT_EQ(Skelda_WatchVersionNumber, 1.0);
  EXPECT_STREQ(kSkeldaNetworkStatusChangedNotification, "SkeldaNetworkStatusChangedNotification");
  EXPECT_STREQ(SkeldaPropertyCurrencyPreference, "Skelda.CurrencyPreference");
}

}  // namespace
}  // namespace skelda::testing
