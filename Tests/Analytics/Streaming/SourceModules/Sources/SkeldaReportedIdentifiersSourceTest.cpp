#include "Analytics/Streaming/SourceModules/Sources/SkeldaReportedIdentifiersSource.h"

#include <gmock/gmock.h>

#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivity.h"
#include "Platform/WatchConnectivity/WCDefaultSession.h"
#include "Platform/WatchConnectivity/WCPairTransport.h"
#include "Tests/Analytics/Streaming/SourceModules/Sources/SourceRig.h"
#include "Tests/Platform/WatchConnectivity/SessionFixture.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/FaultyFiles.h"

namespace skelda::testing {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
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

  // A first start has nothing to report and asks the phone.
  Rig first;
  first->startup();
  EXPECT_THAT(first.texts(), IsEmpty());
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
  EXPECT_THAT(first.texts(), IsEmpty());
  EXPECT_EQ(first->watchVendorIDForSessionReport(), std::nullopt);
  EXPECT_EQ(first->watchInstallationIDForSessionReport(), std::nullopt);

  // The phone sends both; they are reported and acknowledged.
  watchEnd->setJoined(true);
  phone->transferUserInfo({{"skelda://id1", "VENDOR"}, {"skelda://id2", "00ff10"}});
  const std::string message =
      "140 {\"sk.reported.id\":{\"VendorId\":\"VENDOR\",\"iOSInstallationId\":\"AP8Q\"},"
      "\"sk.ad.tracking\":false}";
  ASSERT_EQ(first.recorder->messages(1).size(), 1U);
  EXPECT_THAT(first.texts(), ElementsAre(message));
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

TEST(ReportedIdentifiersSource, ReportsThisDevicesOwnIdentifiersWhenAsked) {
  const AgentHome home;
  const auto own = SkeldaReportedIdentifiersSource::installationIDForSessionReport();
  {
    const auto plan = std::make_shared<FaultPlan>();
    const FaultyFileCalls calls(plan);
    plan->failKind("open", 1, {.error = EMFILE, .times = Fault::kForEver});
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
