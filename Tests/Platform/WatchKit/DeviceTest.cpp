#include "Platform/Kernel/Kernel.h"
#include "Platform/WatchKit/WKInterfaceDevice.h"
#include "Tests/Support/Testing.h"

namespace {

struct DeviceTest : testing::Test {
  DeviceTest() { environment_.set("SKELDA_SCREEN", std::nullopt); }
  void have(const std::string& path, std::string_view text) {
    writeFile(root_.path() + path, text);
  }

  SystemFolder root_;
  ScopedEnvironment environment_;
  WKInterfaceDevice& device_ = *WKInterfaceDevice::currentDevice();
};

TEST_F(DeviceTest, WhatTheMachineDoesNotHaveIsNothing) {
  EXPECT_FALSE(hostVirtualMemoryStatistics());
  EXPECT_FALSE(taskThreadsCPUUsage());
  int error = -1;
  EXPECT_FALSE(machineID(&error));
  EXPECT_EQ(error, 0) << "is not a failure";
  EXPECT_EQ(device_.identifierForVendor(), "");
  EXPECT_EQ(device_.screenBounds().width, 0);
  EXPECT_NE(device_.systemVersion(), "") << "the kernel's release at least";
  EXPECT_NE(device_.model(), "") << "the architecture at least";
  have("/proc/meminfo", "MemTotal: many kB\nMemFree:");
  EXPECT_FALSE(hostVirtualMemoryStatistics());
  for (const auto text : {"", "\n", "uninitialized\n", "0123456789abcdef0123456789abcdeg"}) {
    have("/etc/machine-id", text);
    EXPECT_EQ(machineID(), std::nullopt) << text;
  }
}

TEST_F(DeviceTest, MemoryIsReadFromTheKernelsTable) {
  have("/proc/meminfo",
       "MemTotal:       1000 kB\nMemFree:         200 kB\nMemAvailable:    500 kB\n"
       "Active:          300 kB\nInactive:        150 kB\nActive(anon):     10 kB\n"
       "Unevictable:       7 kB\nKernelStack:     11 kB\nPageTables:      13 kB\n"
       "SUnreclaim:       17 kB");
  const auto now = hostVirtualMemoryStatistics().value();
  EXPECT_EQ((std::array{now.total, now.free, now.active, now.inactive, now.wired}),
            (std::array<std::uint64_t, 5>{1000 << 10, 200 << 10, 300 << 10, 150 << 10, 48 << 10}));
}

TEST_F(DeviceTest, CPUUsageIsThatOfTheLastSecondAtLeast) {
  using std::chrono::milliseconds;
  ProcessorUsage usage(5000ms);
  const std::tuple<int, int, float> readings[] = {
      {5500, 250, 50},  // since the begin
      {7000, 400, 20}, {7001, 401, 20}, {8100, 1500, 100}, {8900, 1500, 58}, {9900, 1500, 0}};
  for (const auto& [now, used, percent] : readings)
    EXPECT_NEAR(usage.percent(milliseconds(now), milliseconds(used)), percent, 0.5F) << now;

  // A name with blanks and parentheses, then fields 3 to 22.
  have("/proc/self/stat", "7 (a) b (c)) R 1 2 3 4 5 6 7 8 9 10 11 12 0 0 20 0 1 0 0 0 0\n");
  EXPECT_LT(taskThreadsCPUUsage().value(), 100.0F) << "since the machine was started";
  have("/proc/self/stat", "10 (torn) R 1 2");
  EXPECT_FALSE(taskThreadsCPUUsage());
  setSystemRoot("");
  EXPECT_GT(taskThreadsCPUUsage().value_or(-1), 0.0F);
}

TEST_F(DeviceTest, TimeSinceBootGoesOnAndAgreesWithTheClock) {
  const auto before = *uptime();
  EXPECT_GT(before.count(), 0);
  const auto gap = Date::now() - *bootTime();
  EXPECT_GE(gap + Date::Microseconds(1), std::chrono::duration_cast<Date::Microseconds>(before));
  EXPECT_LT(std::chrono::abs(gap - std::chrono::duration_cast<Date::Microseconds>(*uptime())), 5s);
}

TEST_F(DeviceTest, VersionModelAndScreenComeFromTheFirstThatKnows) {
  have("/usr/lib/os-release", "VERSION_ID=9\n");
  EXPECT_EQ(device_.systemVersion(), "9");
  have("/etc/os-release", "NAME=x\nMY_VERSION_ID=1\nVERSION_ID=\"12.5\"\n");
  EXPECT_EQ(device_.systemVersion(), "12.5");
  have("/sys/class/dmi/id/product_name", "Watch Board \n");
  EXPECT_EQ(device_.model(), "Watch Board");
  have("/proc/device-tree/model", std::string_view("Acme Watch\0", 11));
  EXPECT_EQ(device_.model(), "Acme Watch");

  have("/sys/class/drm/card0-A/status", "disconnected\n");
  have("/sys/class/drm/card0-A/modes", "1x1\n");
  have("/sys/class/drm/card0-B/status", "connected\n");
  have("/sys/class/drm/card0-B/modes", "");
  have("/sys/class/drm/card1-A/status", "connected\n");
  have("/sys/class/drm/card1-A/modes", "454x400i\n640x480\n");
  EXPECT_EQ(device_.screenBounds().width, 454);
  EXPECT_EQ(device_.screenBounds().height, 400);
  for (const auto& [text, width] :
       {std::pair{"396x484", 396.0}, {"396", 454.0}, {"x", 454.0}, {"-3x4", 454.0}, {"", 454.0}}) {
    environment_.set("SKELDA_SCREEN", text);
    EXPECT_EQ(device_.screenBounds().width, width) << text;
  }
}

TEST_F(DeviceTest, TheVendorIdentifierBelongsToMachineAndApplication) {
  const auto identifier = [&](char machine, const char* bundle) {
    have("/etc/machine-id", std::string(32, machine) + "\n");
    const HostBundle host({{"CFBundleIdentifier", bundle}});
    return device_.identifierForVendor();
  };
  const std::string first = identifier('a', "com.example.a");
  EXPECT_EQ(first.size(), 36u);
  EXPECT_EQ(first[14], '8') << "a version of the maker's own";
  EXPECT_NE(std::string("89AB").find(first[19]), std::string::npos) << first;
  EXPECT_EQ(first.find("aaaa"), std::string::npos);
  EXPECT_EQ(first, identifier('a', "com.example.a"));
  EXPECT_NE(first, identifier('b', "com.example.a"));
  EXPECT_NE(first, identifier('a', "com.example.b"));
}

}  // namespace
