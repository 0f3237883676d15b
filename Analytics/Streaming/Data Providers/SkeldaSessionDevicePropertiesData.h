#pragma once

#include <cstdint>
#include <memory>
#include <string>

/// One snapshot of the device's resource figures. Sizes are bytes, the CPU usage is percent of one
/// processor summed over the threads, the battery level is 0 to 1 or -1 for unknown. Plain data:
/// once handed to observers it is replaced, never changed.
class SkeldaSessionDevicePropertiesData {
 public:
  /// A snapshot of this moment. Reads the system, so not on a thread in a hurry.
  static std::shared_ptr<const SkeldaSessionDevicePropertiesData> currentSnapshot(bool isStart);
  static std::shared_ptr<SkeldaSessionDevicePropertiesData> dataWithFreeMemory(
      std::uint64_t freeMemory, std::uint64_t activeMemory, std::uint64_t inactiveMemory,
      std::uint64_t wiredMemory, float cpuUsage, std::uint64_t totalDiskSize,
      std::uint64_t availableDiskSize, std::int64_t lastBootTime, float batteryLevel,
      bool batteryCharging, std::string carrierName, std::string carrierMNC, std::string carrierMCC,
      bool isStart);

  std::uint64_t freeMemory() const noexcept { return freeMemory_; }
  std::uint64_t activeMemory() const noexcept { return activeMemory_; }
  std::uint64_t inactiveMemory() const noexcept { return inactiveMemory_; }
  std::uint64_t wiredMemory() const noexcept { return wiredMemory_; }
  float cpuUsage() const noexcept { return cpuUsage_; }
  std::uint64_t totalDiskSize() const noexcept { return totalDiskSize_; }
  std::uint64_t availableDiskSize() const noexcept { return availableDiskSize_; }
  std::int64_t lastBootTime() const noexcept { return lastBootTime_; }
  float batteryLevel() const noexcept { return batteryLevel_; }
  bool batteryCharging() const noexcept { return batteryCharging_; }
  const std::string& carrierName() const noexcept { return carrierName_; }
  const std::string& carrierMNC() const noexcept { return carrierMNC_; }
  const std::string& carrierMCC() const noexcept { return carrierMCC_; }
  bool isStartFlag() const noexcept { return isStartFlag_; }

  void setFreeMemory(std::uint64_t bytes) noexcept { freeMemory_ = bytes; }
  void setActiveMemory(std::uint64_t bytes) noexcept { activeMemory_ = bytes; }
  void setInactiveMemory(std::uint64_t bytes) noexcept { inactiveMemory_ = bytes; }
  void setWiredMemory(std::uint64_t bytes) noexcept { wiredMemory_ = bytes; }
  void setCpuUsage(float percent) noexcept { cpuUsage_ = percent; }
  void setTotalDiskSize(std::uint64_t bytes) noexcept { totalDiskSize_ = bytes; }
  void setAvailableDiskSize(std::uint64_t bytes) noexcept { availableDiskSize_ = bytes; }
  void setLastBootTime(std::int64_t time) noexcept { lastBootTime_ = time; }
  void setBatteryLevel(float level) noexcept { batteryLevel_ = level; }
  void setBatteryCharging(bool charging) noexcept { batteryCharging_ = charging; }
  void setCarrierName(std::string name) { carrierName_ = std::move(name); }
  void setCarrierMNC(std::string code) { carrierMNC_ = std::move(code); }
  void setCarrierMCC(std::string code) { carrierMCC_ = std::move(code); }
  void setIsStartFlag(bool isStart) noexcept { isStartFlag_ = isStart; }

 private:
  std::uint64_t freeMemory_ = 0;
  std::uint64_t activeMemory_ = 0;
  std::uint64_t inactiveMemory_ = 0;
  std::uint64_t wiredMemory_ = 0;
  float cpuUsage_ = 0;
  std::uint64_t totalDiskSize_ = 0;
  std::uint64_t availableDiskSize_ = 0;
  std::int64_t lastBootTime_ = 0;
  float batteryLevel_ = -1.0F;
  bool batteryCharging_ = false;
  std::string carrierName_;
  std::string carrierMNC_;
  std::string carrierMCC_;
  bool isStartFlag_ = false;
};
