#include "Analytics/Streaming/Core/StreamManager/SkeldaWatchStreamManager.h"

#include <gmock/gmock.h>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamCoreBuffer.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionInfoDataProvider.h"
#include "Analytics/Streaming/SourceModules/Sources/ISkeldaEventFrameSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaReportedIdentifiersSource.h"
#include "Analytics/Streaming/Transfer/SkeldaStreamFrameLogSender.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Bundle.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Tests/Analytics/Streaming/Core/LogWords.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/LogCapture.h"

namespace skelda::testing {
namespace {

using Manager = SkeldaWatchStreamManager;
using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using ::testing::UnorderedElementsAre;

/// Sees every log that is committed, before it is sent and removed.
class CommitedLogs : public platform::Object, public ISkeldaStreamingDataObserver {
 public:
  std::string_view className() const noexcept override { return "SkeldaStreamingObserver"; }
  void frameLogFileDidUpdate(const std::string& fullPath) override {
    std::lock_guard lock(mutex_);
    logs_.emplace(fullPath, readFile(fullPath));
    changed_.notify_all();
  }
  /// Content by path, once there are so many or twenty seconds have passed.
  std::map<std::string, std::string> logs(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(20), [&] { return logs_.size() >= count; });
    return logs_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, std::string> logs_;
};

class SkeldaWatchStreamManagerTest : public ::testing::Test {
 protected:
  SkeldaWatchStreamManagerTest() {
    // Nobody listens there, and no name has to be looked up to find that out.
    SkeldaNetworkURLsDataProvider::sharedInstance()->setServerURL("http://127.0.0.1:9/v1/skd.do");
    platform::ClassRegistry::shared().registerClass(
        {"SkeldaStreamingObserver", {}, {}, [logs = logs_] { return logs; }});
  }
  ~SkeldaWatchStreamManagerTest() override {
    platform::Bundle::setMain(nullptr);
    SkeldaUtil::setLogLevel(0);
  }
  static std::shared_ptr<Manager> managerWith(platform::Dictionary information) {
    information.set("CFBundleIdentifier", "com.example.run");
    information.set("CFBundleShortVersionString", "1.0");
    information.set("CFBundleVersion", "1");
    platform::Bundle::setMain(std::make_shared<platform::Bundle>(
        "/Run.app/Watch.appex", "/Run.app/Watch.appex/run", std::move(information)));
    return Manager::streamManager();
  }
  AgentHome home_;
  const std::shared_ptr<CommitedLogs> logs_ = std::make_shared<CommitedLogs>();
};

TEST_F(SkeldaWatchStreamManagerTest, HoldsTheThresholdsWithinTheirRangeAndSaysSo) {
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

TEST_F(SkeldaWatchStreamManagerTest, HasEverySourceAndProviderUnderItsKey) {
  const auto manager = managerWith({});
  EXPECT_THAT(manager->mandatoryStickySet(), UnorderedElementsAre(128, 132, 133, 139, 140, 141));
  for (const char* protocol :
       {"ISkeldaEventFrameSource", "ISkeldaSessionInitInfoSource", "ISkeldaStreamFlushSource",
        "ISkeldaReportedIdentifiersSource", "ISkeldaAppInfoSource", "ISkeldaAppStateSource",
        "ISkeldaDevicePropertiesSource", "ISkeldaUserDemographicsSource", "ISkeldaLocaleInfoSource",
        "ISkeldaTimeZoneInfoSource", "ISkeldaAppOrientationSource", "ISkeldaNetworkStatusSource",
        "ISkeldaSessionDevicePropertiesSource", "ISkeldaConsentSource",
        "ISkeldaUserPropertiesSource", "ISkeldaCCPASource"}) {
    const auto source = manager->getObjectForSourceModule(protocol);
    EXPECT_EQ("I" + std::string(source->className()), protocol);
    EXPECT_TRUE(source->conformsToProtocol("ISkeldaFrameSource")) << protocol;
  }
  EXPECT_EQ(manager->getObjectForProviderModule("SkeldaNetworkReachabilityDataProvider"),
            SkeldaNetworkReachabilityDataProvider::sharedInstance());
  for (const char* provider : {"SkeldaAppStateDataProvider", "SkeldaSessionInfoDataProvider",
                               "SkeldaSessionDevicePropertiesDataProvider"}) {
    EXPECT_EQ(manager->getObjectForProviderModule(provider)->className(), provider);
  }
}

TEST_F(SkeldaWatchStreamManagerTest, CarriesASessionFromTheSourcesToACommitedLog) {
  home_.environment().set("LC_ALL", "en_GB.UTF-8");
  home_.environment().set("TZ", "Europe/London");
  const auto manager = managerWith({{"Skelda Watch Event Threshold", 5}});
  // A second recorder behind the buffer says when all sources have spoken.
  const auto recorder = std::make_shared<RecordingStage>();
  manager->streamBuffer()->registerNextStageComponent(recorder);
  const auto events = manager->module<ISkeldaEventFrameSource>();
  events->recordEvent("early", {}, false, platform::Date::now());
  EXPECT_FALSE(manager->isStarted());
  EXPECT_EQ(recorder->words(), "");
  manager->startup();
  EXPECT_TRUE(manager->isStarted());
  manager->module<SkeldaSessionInfoDataProvider>()->startUpWithApiKey("KEY");
  recorder->messages(10);  // the nine of start-up and the event
  const auto identifiers = manager->module<ISkeldaReportedIdentifiersSource>();
  std::dynamic_pointer_cast<SkeldaReportedIdentifiersSource>(identifiers)
      ->didReceiveUserInfo({{"skelda://id1", "VENDOR"}});
  recorder->messages(11);
  // The session that "early" opened is full with the fifth event, and its log is committed.
  for (int i = 0; i < 4; ++i) events->recordEvent("Lap", {}, false, platform::Date::now());

  const auto logs = logs_->logs(2);
  ASSERT_EQ(logs.size(), 2U);
  // The first ends with the flush that the complete set of stickies brings; the second has what the
  // sources said, whatever their order, and ends with the flush that finalizes the session.
  const auto first = logWords(logs.begin()->second), second = logWords(logs.rbegin()->second);
  EXPECT_THAT(first, AllOf(StartsWith("counter1 "), HasSubstr(" e"), EndsWith(" flush1")));
  EXPECT_THAT(second, AllOf(StartsWith("counter2 "), EndsWith(" flush3")));
  for (const char* sticky : {"132", "133", "139", "140", "141", "148", "149", "156", "162"}) {
    EXPECT_THAT(second, HasSubstr(" " + std::string(sticky) + " "));
  }
}

}  // namespace
}  // namespace skelda::testing
