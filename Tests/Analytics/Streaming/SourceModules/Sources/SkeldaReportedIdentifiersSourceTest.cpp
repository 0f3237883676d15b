#include "Analytics/Streaming/SourceModules/Sources/SkeldaReportedIdentifiersSource.h"

#include <gmock/gmock.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "Analytics/Utils/SkeldaKeychainWrapper.h"
#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivity.h"
#include "Platform/Foundation/SystemFiles.h"
#include "Platform/WatchConnectivity/WCDefaultSession.h"
#include "Platform/WatchConnectivity/WCPairTransport.h"
#include "Tests/Analytics/Streaming/SourceModules/Sources/SourceRig.h"
#include "Tests/Platform/WatchConnectivity/SessionFixture.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/LogCapture.h"

namespace skelda::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using Rig = SourceRig<SkeldaReportedIdentifiersSource>;

TEST(ReportedIdentifiersSource, TakesThePhonesIdentifiersOnceAndReportsThemEverAfter) {
  static bool isRepeated = false;
  if (std::exchange(isRepeated, true)) GTEST_SKIP() << "a process connects its phone once";
  const AgentHome home;
  const auto [watchEnd, phoneEnd] = platform::WCPairTransport::make();
  platform::installWatchConnectivity(watchEnd);
  const auto atPhone = std::make_shared<RecordingDelegate>();
  const auto phone = platform::WCDefaultSession::make(phoneEnd);
  phone->setDelegate(atPhone);
  phone->activateSession();
  const auto connectivity = SkeldaWatchConnectivity::defaultConnectivty();

  // A start that knows one of the two reports it and asks the phone for the other.
  SkeldaKeychainWrapper::keychainWrapperWithIdentifier(kSkeldaKeychainIdentifier)
      ->setString("OLD", SkeldaReportedIdentifiersSource::kWatchVendorIDItem);
  Rig first;
  first->startup();
  const std::string known =
      "140 {\"sk.reported.id\":{\"VendorId\":\"OLD\"},\"sk.ad.tracking\":false}";
  EXPECT_THAT(first.texts(), ElementsAre(known));
  connectivity->queue()->sync([] {});

  // What holds no identifier changes nothing, and what cannot be one is not kept.
  EXPECT_FALSE(first->didReceiveUserInfo({{"host", "x"}}));
  const std::pair<platform::Value, platform::Value> bad[] = {
      {7, "no hex"},
      {"", ""},
      {nullptr, nullptr},
      {"\xff", std::string((1 << 20) + 1, 'a')},
      {platform::Array{"VENDOR"}, "00f\xff"},
      {platform::Dictionary(), std::string("00\0", 4)}};
  for (const auto& [vendor, installation] : bad) {
    EXPECT_TRUE(
        first->didReceiveUserInfo({{"skelda://id1", vendor}, {"skelda://id2", installation}}));
  }
  EXPECT_THAT(first.texts(), ElementsAre(known));
  EXPECT_EQ(first->watchVendorIDForSessionReport(), "OLD");
  EXPECT_EQ(first->watchInstallationIDForSessionReport(), std::nullopt);

  // The phone sends both; they are reported and acknowledged.
  watchEnd->setJoined(true);
  phone->transferUserInfo({{"skelda://id1", "VENDOR"}, {"skelda://id2", "00ff10"}});
  const std::string message =
      "140 {\"sk.reported.id\":{\"VendorId\":\"VENDOR\",\"iOSInstallationId\":\"AP8Q\"},"
      "\"sk.ad.tracking\":false}";
  ASSERT_EQ(first.recorder->messages(2).size(), 2U);
  EXPECT_THAT(first.texts(), ElementsAre(known, message));
  // The phone hears: activated, peer came, its own transfer finished, the acknowledgement.
  EXPECT_THAT(atPhone->wait(4), Contains("info {\"skelda://id3\":\"YES\"}"));

  // From then on they come from the keychain.
  Rig second;
  second->startup();
  EXPECT_THAT(second.texts(), ElementsAre(message));

  // One alone is reported alone.
  EXPECT_TRUE(second->didReceiveUserInfo({{"skelda://id2", "0A"}}));
  EXPECT_EQ(second.texts().back(),
            "140 {\"sk.reported.id\":{\"iOSInstallationId\":\"Cg==\"},\"sk.ad.tracking\":false}");
  EXPECT_EQ(second->watchInstallationIDForSessionReport(), "0A");
}

/// As a first start with an empty keychain takes them, but for the sealing key, which is there.
void receiveBothUnder(const FaultPlanRef& plan, std::size_t failingRename) {
  EXPECT_NE(SkeldaReportedIdentifiersSource::installationIDForSessionReport(), "");
  Rig rig;
  const FaultyFileCalls calls(plan);
  plan->failKind("rename", failingRename, {.error = ENOSPC, .times = Fault::kForEver});
  rig->didReceiveUserInfo({{"skelda://id1", "VENDOR"}, {"skelda://id2", "00ff10"}});
  EXPECT_EQ(rig.sent().size(), 1U);
}

TEST(ReportedIdentifiersSource, KeepsBothIdentifiersInOneWriteOrNeitherAndSaysSo) {
  using Source = SkeldaReportedIdentifiersSource;
  SkeldaUtil::setLogLevel(1);
  for (const std::size_t failingRename : {1, 2}) {
    const AgentHome home;
    LogCapture log;
    receiveBothUnder(std::make_shared<FaultPlan>(), failingRename);
    const bool kept = failingRename > 1;
    EXPECT_EQ(Source::watchVendorIDForSessionReport().has_value(), kept);
    EXPECT_EQ(Source::watchInstallationIDForSessionReport().has_value(), kept);
    EXPECT_EQ(log.count("the phone's identifiers cannot be kept"), kept ? 0U : 1U);
  }
  SkeldaUtil::setLogLevel(0);
}

/// Asks soon for what it does not know yet, and yet not before it is there.
class ImpatientSource : public SkeldaReportedIdentifiersSource {
 public:
  static std::shared_ptr<ImpatientSource> getSourceInstance() { return made(new ImpatientSource); }

 private:
  ImpatientSource() { pollInterval_ = std::chrono::milliseconds(300); }
};

TEST(ReportedIdentifiersSource, AsksAgainForWhatItDoesNotKnowYetInsideItsQueue) {
  const AgentHome home;
  const TemporaryDirectory machine;
  platform::setSystemRoot(machine.path());
  SourceRig<ImpatientSource> rig;
  rig->queryAndSendIDs();
  ASSERT_EQ(rig.recorder->messages(1).size(), 1U);
  std::filesystem::create_directory(machine.path() + "/etc");
  std::ofstream(machine.path() + "/etc/machine-id") << std::string(32, 'a') << "\n";
  // The agent's own device identifier, and the vendor identifier, each alone.
  EXPECT_EQ(rig.recorder->messages(3).size(), 3U);
  platform::setSystemRoot("");
}

TEST(ReportedIdentifiersSource, ReportsThisDevicesOwnIdentifiersWhenAsked) {
  const AgentHome home;
  const auto own = SkeldaReportedIdentifiersSource::installationIDForSessionReport();
  {
    const FaultyFileCalls plan;
    plan->failAll("open", EMFILE);
    EXPECT_EQ(SkeldaReportedIdentifiersSource::installationIDForSessionReport(), "");
  }
  EXPECT_EQ(own, SkeldaReportedIdentifiersSource::installationIDForSessionReport());
  Rig rig;
  rig->queryAndSendIDs();
  const auto identifiers = rig.last<SkeldaStreamReportedIdentifers>();
  std::set<std::uint32_t> types, expected{15};
  for (const auto& identifier : identifiers->reportedIDs())
    types.insert(identifier.reportedIDType());
  if (SkeldaUtil::getSkeldaId()) expected.insert(7);
  if (SkeldaUtil::getIdentifierForVendor()) expected.insert(6);
  EXPECT_EQ(types, expected);
}

}  // namespace
}  // namespace skelda::testing
