#include "Platform/Foundation/Bundle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "Platform/Base/Log.h"
#include "Platform/Platform.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using platform::Bundle;
using skelda::testing::writeFile;

constexpr std::string_view kInformation =
    "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>com.example.run</string>"
    "<key>Number</key><integer>7</integer></dict></plist>";

class BundleTest : public testing::Test {
 protected:
  /// The bundle above a program in `folder`, below the test's own folder.
  std::shared_ptr<const Bundle> above(const std::string& folder) {
    std::filesystem::create_directories(root_ / folder);
    return Bundle::above(root_ / folder + "/program");
  }

  skelda::testing::TemporaryDirectory root_;
  skelda::testing::LogCapture log_;
};

TEST_F(BundleTest, IsTheNearestFolderAboveTheProgramWithAnInformationDictionary) {
  std::filesystem::create_directories(root_ / "Run.app/PlugIns/Watch.appex/bin/Inner.app");
  writeFile(root_ / "Run.app/Info.plist", "<plist><dict/></plist>");
  writeFile(root_ / "Run.app/PlugIns/Info.plist", kInformation);
  writeFile(root_ / "Run.app/PlugIns/Watch.appex/Info.plist", kInformation);
  const auto bundle = above("Run.app/PlugIns/Watch.appex/bin/Inner.app");
  EXPECT_EQ(bundle->bundlePath(), root_ / "Run.app/PlugIns/Watch.appex");
  EXPECT_EQ(bundle->executablePath(), root_ / "Run.app/PlugIns/Watch.appex/bin/Inner.app/program");
  EXPECT_EQ(bundle->bundleIdentifier(), "com.example.run");
  EXPECT_EQ(bundle->objectForInfoDictionaryKey("Number"), platform::Value(7));
  EXPECT_TRUE(bundle->objectForInfoDictionaryKey("Absent").isNull());
  EXPECT_EQ(above("Run.app/bin")->bundlePath(), root_ / "Run.app");
  EXPECT_EQ(log_.take().size(), 0u);
}

TEST_F(BundleTest, IsTheProgramsOwnFolderWhereThereIsNone) {
  const auto bundle = above("plain.apple/bin");
  EXPECT_EQ(bundle->bundlePath(), root_ / "plain.apple/bin");
  EXPECT_TRUE(bundle->infoDictionary().empty());
  EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt);
  EXPECT_EQ(log_.take().size(), 1u);
}

TEST_F(BundleTest, HasAnEmptyDictionaryAndOneLineForAFileThatIsNone) {
  const std::string information = root_ / "Run.app/Info.plist";
  std::filesystem::create_directories(root_ / "Run.app");
  writeFile(information, std::string(2 << 20, 'a'));
  EXPECT_TRUE(above("Run.app")->infoDictionary().empty());
  EXPECT_EQ(log_.take().size(), 1u);
  // A pipe without a writer would hold a plain read for ever.
  std::filesystem::remove(information);
  ASSERT_EQ(::mkfifo(information.c_str(), 0600), 0);
  EXPECT_TRUE(above("Run.app")->infoDictionary().empty());
}

}  // namespace
