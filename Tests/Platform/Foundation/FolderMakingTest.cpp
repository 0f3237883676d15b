#include "Platform/Foundation/FolderMaking.h"

#include <gmock/gmock.h>

#include "Platform/Foundation/FileCalls.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CountingCalls : public platform::FileCalls {
 public:
  CountingCalls() { install(this); }
  ~CountingCalls() override { install(nullptr); }
  int sync(int fd) override {
    ++syncs;
    return FileCalls::sync(fd);
  }
  int syncs = 0;
};

TEST(FolderMaking, MakesWhatIsMissingWithoutWaitingAndSynchronisesItWhenAsked) {
  const TemporaryDirectory root;
  CountingCalls calls;
  std::vector<std::string> changed;
  EXPECT_TRUE(platform::makeFolders(root / "a/b/c", changed));
  EXPECT_TRUE(std::filesystem::is_directory(root / "a/b/c"));
  EXPECT_EQ(std::filesystem::status(root / "a").permissions(), std::filesystem::perms::owner_all);
  EXPECT_THAT(changed, ElementsAre(root.path(), root / "a", root / "a/b"));
  EXPECT_EQ(calls.syncs, 0);
  std::vector<std::string> again;
  EXPECT_TRUE(platform::makeFolders(root / "a/b/c", again));
  EXPECT_THAT(again, IsEmpty());

  platform::ErrorRef error;
  EXPECT_TRUE(platform::synchronizeFolders(changed, &error));
  EXPECT_EQ(calls.syncs, 3);
  EXPECT_EQ(error, nullptr);
  changed.insert(changed.begin(), root / "gone");
  EXPECT_FALSE(platform::synchronizeFolders(changed, &error));
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_EQ(calls.syncs, 6) << "one that fails does not stop the others";

  writeFile(root / "file", "in the way");
  EXPECT_FALSE(platform::makeFolders(root / "file/a", again, &error));
  EXPECT_EQ(error->code(), ENOTDIR);
}

}  // namespace
}  // namespace skelda::testing
