// How a snapshot of the device becomes the record of a session.

#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesData.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionDeviceProperties.h"

namespace {

SkeldaStreamSessionTrackedProperties trackedProperties(
    const SkeldaSessionDevicePropertiesData& data) {
  return {.freeMemory = data.freeMemory(),
          .activeMemory = data.activeMemory(),
          .wiredMemory = data.wiredMemory(),
          .inactiveMemory = data.inactiveMemory(),
          .cpuUsage = data.cpuUsage(),
          .batteryLevel = data.batteryLevel(),
          .batteryCharging = data.batteryCharging() ? 1U : 0U};
}

}  // namespace

std::shared_ptr<SkeldaStreamSessionDeviceProperties>
SkeldaStreamSessionDeviceProperties::dataWithSessionDevicePropertiesData(
    const SkeldaSessionDevicePropertiesData& start) {
  auto record = sessionDeviceProperties();
  record->takeTotals(start);
  record->startProperties_ = trackedProperties(start);
  return record;
}

void SkeldaStreamSessionDeviceProperties::updateWithData(
    const SkeldaSessionDevicePropertiesData& end) {
  takeTotals(end);
  endProperties_ = trackedProperties(end);
}

void SkeldaStreamSessionDeviceProperties::takeTotals(
    const SkeldaSessionDevicePropertiesData& data) {
  totalDiskSize_ = data.totalDiskSize();
  availableDiskSize_ = data.availableDiskSize();
  usedDiskSize_ = data.totalDiskSize() > data.availableDiskSize()
                      ? data.totalDiskSize() - data.availableDiskSize()
                      : 0;
  lastBootTime_ = data.lastBootTime();
  // The snapshot has no total of its own: what is counted is what the four kinds add up to.
  totalMemory_ =
      data.freeMemory() + data.activeMemory() + data.inactiveMemory() + data.wiredMemory();
  carrierName_ = data.carrierName();
  carrierMNC_ = data.carrierMNC();
  carrierMCC_ = data.carrierMCC();
}
