#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesDataProvider.h"

#include <gtest/gtest.h>

#include "Tests/Analytics/Streaming/Data Providers/RecordingObserver.h"

namespace skelda::testing {
namespace {

TEST(SkeldaSessionDevicePropertiesDataProvider, OffersTheLastSnapshotAndTellsOfEach) {
  const auto provider = SkeldaSessionDevicePropertiesDataProvider::getInstance();
  const auto observer = std::make_shared<RecordingObserver>();
  provider->registerObserver(observer);
  settle(*provider);
  EXPECT_EQ(observer->updates(), 0U);
  EXPECT_EQ(provider->devicePropertiesData(), nullptr);

  provider->startup();
  const auto first = provider->devicePropertiesData();
  ASSERT_NE(first, nullptr);
  EXPECT_TRUE(first->isStartFlag());
  provider->sendSessionDevicePropertiesForStart(false);
  const auto second = provider->devicePropertiesData();
  EXPECT_NE(second, first);
  EXPECT_FALSE(second->isStartFlag());
  settle(*provider);
  EXPECT_EQ(observer->updates(), 2U);

  // What the session rule puts in its place is not announced.
  provider->setDevicePropertiesData(first);
  provider->dataProviderDidUpdate(provider);
  EXPECT_EQ(provider->devicePropertiesData(), first);
  settle(*provider);
  EXPECT_EQ(observer->updates(), 2U);
}

TEST(SkeldaSessionDevicePropertiesData, HoldsTheFiguresOfThisMachineAndNoneOfABatteryOrCarrier) {
  const auto snapshot = SkeldaSessionDevicePropertiesData::currentSnapshot(true);
  EXPECT_GT(snapshot->freeMemory() + snapshot->activeMemory() + snapshot->inactiveMemory(), 0U);
  EXPECT_GT(snapshot->totalDiskSize(), 0U);
  EXPECT_LE(snapshot->availableDiskSize(), snapshot->totalDiskSize());
  EXPECT_GT(snapshot->lastBootTime(), 0);
  EXPECT_GE(snapshot->cpuUsage(), 0.0F);
  EXPECT_EQ(snapshot->batteryLevel(), -1.0F);
  EXPECT_FALSE(snapshot->batteryCharging());
  EXPECT_EQ(snapshot->carrierName(), "unavailable");
  EXPECT_EQ(snapshot->carrierMNC(), "unavailable");
  EXPECT_EQ(snapshot->carrierMCC(), "unavailable");
}

}  // namespace
}  // namespace skelda::testing
