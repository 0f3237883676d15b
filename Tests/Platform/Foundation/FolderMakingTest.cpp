#include "Platform/Foundation/FolderMaking.h"

#include <gmock/gmock.h>

#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(FolderMaking, MakesWhatIsMissingWithoutWaitingAndSynchronisesItWhenAsked) {
  const TemporaryDirectory root;
  const auto plan = std::make_shared<FaultPlan>();
  FaultyFileCalls calls(plan);
  std::vector<std::string> changed;
  EXPECT_TRUE(platform::makeFolders(root / "a/b/c", changed));
  EXPECT_TRUE(std::filesystem::is_directory(root / "a/b/c"));
  EXPECT_EQ(std::filesystem::status(root / "a").permissions(), std::filesystem::perms::owner_all);
  EXPECT_THAT(changed, ElementsAre(root.path(), root / "a", root / "a/b"));
  EXPECT_EQ(plan->calls("sync"), 0u);
  std::vector<std::string> again;
  EXPECT_TRUE(platform::makeFolders(root / "a/b/c", again));
  EXPECT_THAT(again, IsEmpty());

  platform::ErrorRef error;
  EXPECT_TRUE(platform::synchronizeFolders(changed, &error));
  EXPECT_EQ(plan->calls("sync"), 3u);
  EXPECT_EQ(error, nullptr);
  changed.insert(changed.begin(), root / "gone");
  EXPECT_FALSE(platform::synchronizeFolders(changed, &error));
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_EQ(plan->calls("sync"), 6u) << "one that fails does not stop the others";

  writeFile(root / "file", "in the way");
  EXPECT_FALSE(platform::makeFolders(root / "file/a", again, &error));
  EXPECT_EQ(error->code(), ENOTDIR);
}

}  // namespace
}  // namespace skelda::testing
