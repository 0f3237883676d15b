#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesData.h"

#include <utility>

#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"
#include "Platform/Foundation/FileManager.h"
#include "Platform/Kernel/Kernel.h"
#include "Skelda_Watch/SkeldaResourceUsage.h"

namespace {

/// A watch has no carrier to ask.
std::string carrierFigure(std::string_view key) {
  return SkeldaUtil::getValueForKey(key, {}, "unavailable").description();
}

}  // namespace

std::shared_ptr<const SkeldaSessionDevicePropertiesData>
SkeldaSessionDevicePropertiesData::currentSnapshot(bool isStart) {
  // Figures of one kind from one reading, so that they belong together.
  const auto memory = platform::hostVirtualMemoryStatistics();
  if (!memory) SKELDA_LOG(2, "Failed to fetch vm statistics");
  const auto figures = memory.value_or(platform::VirtualMemoryStatistics{});
  const auto disk = SkeldaUtil::documentsFileSystem();
  return dataWithFreeMemory(figures.free, figures.active, figures.inactive, figures.wired,
                            total_cpu_usage(), disk.size, disk.freeSize, SkeldaUtil::lastBootTime(),
                            /*batteryLevel=*/-1.0F, /*batteryCharging=*/false,
                            carrierFigure("carrierName"), carrierFigure("mobileNetworkCode"),
                            carrierFigure("mobileCountryCode"), isStart);
}

std::shared_ptr<SkeldaSessionDevicePropertiesData>
SkeldaSessionDevicePropertiesData::dataWithFreeMemory(
    std::uint64_t freeMemory, std::uint64_t activeMemory, std::uint64_t inactiveMemory,
    std::uint64_t wiredMemory, float cpuUsage, std::uint64_t totalDiskSize,
    std::uint64_t availableDiskSize, std::int64_t lastBootTime, float batteryLevel,
    bool batteryCharging, std::string carrierName, std::string carrierMNC, std::string carrierMCC,
    bool isStart) {
  auto data = platform::makeCounted<SkeldaSessionDevicePropertiesData>();
  data->freeMemory_ = freeMemory;
  data->activeMemory_ = activeMemory;
  data->inactiveMemory_ = inactiveMemory;
  data->wiredMemory_ = wiredMemory;
  data->cpuUsage_ = cpuUsage;
  data->totalDiskSize_ = totalDiskSize;
  data->availableDiskSize_ = availableDiskSize;
  data->lastBootTime_ = lastBootTime;
  data->batteryLevel_ = batteryLevel;
  data->batteryCharging_ = batteryCharging;
  data->carrierName_ = std::move(carrierName);
  data->carrierMNC_ = std::move(carrierMNC);
  data->carrierMCC_ = std::move(carrierMCC);
  data->isStartFlag_ = isStart;
  return data;
}
