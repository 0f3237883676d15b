#include "Platform/Foundation/FileManager.h"

#include <sys/xattr.h>

#include "Platform/Foundation/FolderMaking.h"
#include "Tests/Support/Testing.h"

namespace {

using testing::ElementsAre, testing::IsEmpty;

const std::string kOld = "old content";
const std::string kNew(300'000, 'n');

/// A storage folder with a folder of committed files in it, as the agent has them.
struct FileManagerTest : testing::Test {
  FileManagerTest() {
    EXPECT_TRUE(manager_.createDirectoryAtPath(committed_, true));
    writeFile(source_, kNew);
  }
  bool hasTemporaries() const {
    const auto is = [](auto& name) { return name.starts_with(FileManager::kTemporaryPrefix); };
    return std::ranges::any_of(manager_.contentsOfDirectoryAtPath(storage_).value(), is);
  }

  FileManager manager_;
  TemporaryDirectory directory_;
  const std::string storage_ = directory_ / "storage";
  const std::string committed_ = storage_ + "/committed";
  const std::string source_ = storage_ + "/log";
  const std::string destination_ = committed_ + "/log_1";
};

TEST_F(FileManagerTest, ACopyIsWholeAndNeverReplacesAnything) {
  ErrorRef error;
  ASSERT_TRUE(manager_.copyItemAtPath(source_, destination_, &error));
  EXPECT_EQ(readFile(destination_), kNew);
  EXPECT_EQ(modeOf(destination_), 0600u);

  writeFile(destination_, kOld);
  const std::tuple<std::string, std::string, int> refused[] = {
      {source_, destination_, EEXIST},           {storage_ + "/absent", committed_ + "/x", ENOENT},
      {committed_, committed_ + "/x", EISDIR},   {std::string("nul\0", 4), destination_, EINVAL},
      {source_, storage_ + "/absent/x", ENOENT}, {source_, std::string("nul\0", 4), EINVAL}};
  for (const auto& [source, destination, code] : refused) {
    EXPECT_FALSE(manager_.copyItemAtPath(source, destination, &error)) << destination;
    EXPECT_EQ(codeOf(error), code) << destination;
  }
  EXPECT_FALSE(manager_.fileExistsAtPath(source_ + '\0'));
  EXPECT_EQ(manager_.contentsAtPath(source_ + '\0'), std::nullopt);
  EXPECT_EQ(readFile(destination_), kOld);
  EXPECT_EQ(namesIn(committed_), Texts{"log_1"});
  EXPECT_FALSE(hasTemporaries());
}

TEST_F(FileManagerTest, AKillInTheMiddleLeavesWholeFilesAndSweepableRests) {
  const std::string kept = storage_ + "/archive";
  writeFile(kept, kOld);
  writeFile(storage_ + "/.skelda-other", "not a rest");
  for (int round = 0; round < 8; ++round) {
    const std::string prefix = committed_ + "/" + std::to_string(round) + "_";
    ChildProcess child([&] {
      for (int i = 0; true; ++i) {
        manager_.copyItemAtPath(source_, prefix + std::to_string(i));
        manager_.writeData(Data(i % 2 == 0 ? kNew : kOld), kept, true);
      }
      return 0;
    });
    while (!manager_.fileExistsAtPath(prefix + std::to_string(round))) std::this_thread::yield();
    child.kill();
    const std::string archive = readFile(kept);
    EXPECT_TRUE(archive == kOld || archive == kNew) << archive.size();
  }
  for (const std::string& name : namesIn(committed_))
    EXPECT_EQ(std::filesystem::file_size(committed_ + "/" + name), kNew.size()) << name;
  writeFile(storage_ + "/.skelda-tmp-0123-1-1", "rest");
  EXPECT_GE(manager_.sweepTemporaryFiles(storage_), 1u);
  EXPECT_EQ(namesIn(storage_), (Texts{".skelda-other", "archive", "committed", "log"}));
}

TEST_F(FileManagerTest, WhicheverCallFailsAFileIsWholeOrAbsentAndNothingIsLeftBehind) {
  const std::string archive = storage_ + "/archive";
  for (std::size_t call = 1; true; ++call) {
    writeFile(archive, kOld);
    std::filesystem::remove(destination_);
    const FaultyFileCalls plan;
    plan->failCall(call, {.error = EIO});
    const bool copied = manager_.copyItemAtPath(source_, destination_);
    plan->failCall(call, {.error = EIO});
    const bool replaced = manager_.writeData(Data(kNew), archive, true);
    plan->clear();
    // A failed close or synchronisation comes too late to take the file back.
    const bool published = manager_.fileExistsAtPath(destination_);
    EXPECT_TRUE(published || !copied) << call;
    EXPECT_TRUE(!published || readFile(destination_) == kNew) << call;
    const std::string now = readFile(archive);
    EXPECT_TRUE(now == kNew || (now == kOld && !replaced)) << call;
    EXPECT_FALSE(hasTemporaries()) << call;
    if (plan->faults() > 0) continue;
    EXPECT_TRUE(copied && replaced);
    EXPECT_GT(call, 10u);
    break;
  }
}

TEST_F(FileManagerTest, InterruptedShortAndUnsupportedCallsAreGoneOnWith) {
  // The last is a kind that must be called because of the fault.
  const std::tuple<const char*, Fault, const char*> cases[] = {
      {"status", {EINTR}, "status"},   {"open", {.error = EINTR, .times = 3}, "open"},
      {"copyRange", {EXDEV}, "write"}, {"copyRange", {.error = EINTR, .times = 3}, "copyRange"},
      {"copyRange", {ENOSYS}, "read"}, {"copyRange", {.shortLength = 7, .times = 5}, "copyRange"},
      {"copyRange", {EPERM}, "read"},  {"renameNoReplace", {EINVAL}, "link"},
      {"syncData", {EINTR}, "sync"},   {"renameNoReplace", {ENOSYS}, "unlink"},
      {"sync", {EINVAL}, "sync"},      {"setAttribute", {ENOTSUP}, "setAttribute"}};
  for (const auto& [kind, fault, inUse] : cases) {
    std::filesystem::remove(destination_);
    const FaultyFileCalls plan(kind, fault);
    ErrorRef error;
    EXPECT_TRUE(manager_.copyItemAtPath(source_, destination_, &error)) << kind << codeOf(error);
    EXPECT_EQ(readFile(destination_), kNew) << kind;
    EXPECT_TRUE(manager_.excludeFromBackup(destination_));
    EXPECT_GT(plan->faults(), 0u) << kind;
    EXPECT_GT(plan->calls(inUse), 0u) << kind;
    EXPECT_FALSE(hasTemporaries()) << kind;
    // Without a rename that refuses, the link does.
    plan->failKind(kind, 1, fault);
    EXPECT_FALSE(manager_.copyItemAtPath(source_, destination_));
  }
  const FaultyFileCalls plan("write", {.shortLength = 1, .times = 4});
  plan->failKind("read", 1, {.error = EINTR, .times = 2});
  EXPECT_TRUE(manager_.writeData(Data(kNew), source_, true));
  EXPECT_EQ(manager_.contentsAtPath(source_), Data(kNew));
  // Bytes that the kernel cannot copy, on a disk that is full.
  plan->failKind("copyRange", 1, {.error = EXDEV});
  plan->failKind("write", 1, {.error = ENOSPC});
  EXPECT_FALSE(manager_.copyItemAtPath(source_, committed_ + "/full"));
  EXPECT_FALSE(manager_.fileExistsAtPath(committed_ + "/full"));
  plan->failKind("syncData", 1, {.error = EIO});
  EXPECT_FALSE(manager_.storeNewFile(Data(kNew), committed_ + "/block"));
  writeFile(storage_ + "/empty", "");
  EXPECT_TRUE(manager_.copyItemAtPath(storage_ + "/empty", committed_ + "/empty"));
  plan->failKind("read", 1, {.error = EIO});
  ErrorRef error;
  EXPECT_EQ(manager_.contentsAtPath(source_, &error), std::nullopt);
  EXPECT_EQ(error->code(), EIO);
}

TEST_F(FileManagerTest, FoldersAndFilesAreThePrivateOnesOfTheirOwner) {
  const std::string deep = directory_ / "a/b//c/";
  ErrorRef error;
  EXPECT_FALSE(manager_.createDirectoryAtPath(deep, false, &error));
  EXPECT_EQ(error->code(), ENOENT);
  ASSERT_TRUE(manager_.createDirectoryAtPath(deep, true));
  EXPECT_TRUE(manager_.createDirectoryAtPath(deep, true));
  EXPECT_EQ(modeOf(directory_ / "a"), 0700u);
  EXPECT_EQ(modeOf(deep), 0700u);
  EXPECT_FALSE(manager_.createDirectoryAtPath(source_, true, &error));
  EXPECT_FALSE(manager_.createDirectoryAtPath(source_ + "/under-a-file", true, &error));
  EXPECT_EQ(error->code(), ENOTDIR);

  ASSERT_TRUE(manager_.createFileAtPath(deep + "new", Data(kOld)));
  EXPECT_EQ(modeOf(deep + "new"), 0600u);
  ASSERT_TRUE(manager_.createFileAtPath(deep + "new"));
  EXPECT_EQ(readFile(deep + "new"), "");
  ASSERT_TRUE(manager_.writeData(Data(kOld), deep + "new", false));
  EXPECT_EQ(manager_.contentsAtPath(deep + "new"), Data(kOld));
}

TEST_F(FileManagerTest, RemovingAFolderLeavesWhatItsLinksPointTo) {
  std::filesystem::create_symlink(committed_, storage_ + "/link");
  writeFile(committed_ + "/inside", kOld);
  EXPECT_TRUE(manager_.removeItemAtPath(storage_ + "/link"));
  EXPECT_EQ(readFile(committed_ + "/inside"), kOld);
  std::filesystem::create_directory(directory_ / "tree");
  std::filesystem::create_symlink(committed_, directory_ / "tree/link");
  EXPECT_TRUE(manager_.removeItemAtPath(directory_ / "tree"));
  EXPECT_EQ(readFile(committed_ + "/inside"), kOld);
  ErrorRef error;
  EXPECT_FALSE(manager_.removeItemAtPath(directory_ / "tree", &error));
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_EQ(manager_.contentsOfDirectoryAtPath(directory_ / "tree", &error), std::nullopt);
  EXPECT_EQ(error->code(), ENOENT);
}

TEST_F(FileManagerTest, BackupExclusionIsAnAttributeOfTheFile) {
  ASSERT_TRUE(manager_.excludeFromBackup(source_));
  char value[8] = {};
  const auto length = ::getxattr(source_.c_str(), "user.xdg.robots.backup", value, sizeof value);
  if (length < 0 && errno == ENOTSUP) GTEST_SKIP() << "no attributes on this file system";
  EXPECT_EQ(std::string(value, static_cast<std::size_t>(std::max<::ssize_t>(length, 0))), "false");
  EXPECT_FALSE(manager_.excludeFromBackup(storage_ + "/absent"));
  EXPECT_GT(manager_.attributesOfFileSystemForPath(storage_)->size, 0u);
  EXPECT_EQ(manager_.attributesOfFileSystemForPath(storage_ + "/absent"), std::nullopt);
}

TEST(FolderMaking, MakesWhatIsMissingWithoutWaitingAndSynchronisesItWhenAsked) {
  const TemporaryDirectory root;
  const FaultyFileCalls plan;
  Texts changed;
  EXPECT_TRUE(makeFolders(root / "a/b/c", changed));
  EXPECT_TRUE(std::filesystem::is_directory(root / "a/b/c"));
  EXPECT_EQ(modeOf(root / "a"), 0700u);
  EXPECT_THAT(changed, ElementsAre(root.path(), root / "a", root / "a/b"));
  EXPECT_EQ(plan->calls("sync"), 0u);
  Texts again;
  EXPECT_TRUE(makeFolders(root / "a/b/c", again));
  EXPECT_THAT(again, IsEmpty());

  ErrorRef error;
  EXPECT_TRUE(synchronizeFolders(changed, &error));
  EXPECT_EQ(plan->calls("sync"), 3u);
  EXPECT_EQ(error, nullptr);
  changed.insert(changed.begin(), root / "gone");
  EXPECT_FALSE(synchronizeFolders(changed, &error));
  EXPECT_EQ(error->code(), ENOENT);
  EXPECT_EQ(plan->calls("sync"), 6u) << "one that fails does not stop the others";

  writeFile(root / "file", "in the way");
  EXPECT_FALSE(makeFolders(root / "file/a", again, &error));
  EXPECT_EQ(error->code(), ENOTDIR);
}

TEST(FileManagerFoldersTest, FollowTheEnvironmentAndTheBundle) {
  TemporaryHome home;
  const auto with = [](Dictionary information) {
    const HostBundle bundle(information, "/x.appex");
    return FileManager::applicationSupportDirectory();
  };
  const auto withIdentifier = [&](const char* id) { return with({{"CFBundleIdentifier", id}}); };
  EXPECT_EQ(with({}), home / "data/x.appex");
  EXPECT_EQ(withIdentifier("com.example.run"), home / "data/com.example.run");
  EXPECT_EQ(withIdentifier("../evil"), home / "data/.._evil");
  EXPECT_EQ(withIdentifier(".."), home / "data/_.");
  home.environment().set("XDG_DATA_HOME", "relative");
  home.environment().set("XDG_STATE_HOME", std::nullopt);
  home.environment().set("XDG_DOCUMENTS_DIR", "");
  EXPECT_EQ(withIdentifier("b"), home / ".local/share/b");
  EXPECT_EQ(FileManager::stateDirectory(), home / ".local/state");
  EXPECT_EQ(FileManager::documentsDirectory(), home.path());
}

}  // namespace
