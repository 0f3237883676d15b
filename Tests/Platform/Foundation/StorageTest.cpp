
#include "Platform/Foundation/FileManager.h"
#include "Platform/Foundation/StorageLock.h"
#include "Platform/Foundation/StorageReserve.h"
#include "Tests/Support/Testing.h"

namespace {

using Status = StorageLock::Status;

TEST(StorageLockTest, TheHolderMayAskAgainButAForkedChildIsAnother) {
  TemporaryDirectory folder;
  const auto acquire = [&] { return StorageLock::acquire(folder / "lock"); };
  for (int times = 0; times < 2; ++times) ASSERT_EQ(acquire().status, Status::held);
  const ::pid_t self = ::getpid();
  ChildProcess child([&] {
    const auto result = acquire();
    return result.status == Status::heldByOther && result.holder == self ? 0 : 1;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(readFile(folder / "lock"), std::to_string(self) + "\n");
  StorageLock::release(folder / "lock");
  ChildProcess next([&] { return acquire().status == Status::held ? 0 : 1; });
  EXPECT_EQ(next.wait(), 0);
}

TEST(StorageLockTest, FailuresAreNeitherHeldNorAnothers) {
  TemporaryDirectory folder;
  const auto absent = StorageLock::acquire(folder / "absent/lock");
  EXPECT_EQ(absent.status, Status::failed);
  EXPECT_EQ(codeOf(absent.error), ENOENT);
  writeFile(folder / "target", "of a link");
  std::filesystem::create_symlink(folder / "target", folder / "link");
  EXPECT_EQ(StorageLock::acquire(folder / "link").status, Status::failed);
  EXPECT_EQ(readFile(folder / "target"), "of a link");
  const FaultyFileCalls plan("lock", {.error = ENOLCK});
  EXPECT_EQ(StorageLock::acquire(folder / "lock").status, Status::failed);
  plan->failKind("open", 1, {.error = EMFILE});
  EXPECT_EQ(StorageLock::acquire(folder / "lock").error->code(), EMFILE);
  // The number in the file is a help, not the lock.
  plan->failKind("write", 1, {.error = ENOSPC});
  EXPECT_EQ(StorageLock::acquire(folder / "lock").status, Status::held);
  StorageLock::release(folder / "lock");
}

struct StorageReserveTest : testing::Test {
  StorageReserveTest() {
    std::filesystem::create_directory(folder_ / "commited");
    writeFile(folder_ / "log", "frames");
    StorageReserve::take(reserve_);
    EXPECT_EQ(std::filesystem::file_size(reserve_), StorageReserve::kFileLength);
  }
  ~StorageReserveTest() override { StorageReserve::forget(); }
  bool all() {
    auto& files = *FileManager::defaultManager();
    const std::string number = std::to_string(++round_);
    return files.copyItemAtPath(folder_ / "log", folder_ / ("commited/" + number)) &&
           files.storeNewFile(Data("block"), folder_ / ("block" + number)) &&
           files.writeData(Data(number), folder_ / "archive", true);
  }

  TemporaryDirectory folder_;
  const std::string reserve_ = folder_ / ".skelda-reserve";
  int round_ = 0;
};

TEST_F(StorageReserveTest, IsThereWhereDescriptorsRunOut) {
  ChildProcess child([&] {
    // Once while there are some: what watches the calls in a sanitizer build needs them at first.
    if (!all()) return 4;
    const struct ::rlimit limit { 64, 64 };
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return 2;
    while (::dup(STDERR_FILENO) >= 0) continue;
    // Taken anew each time, so that it helps for as long as the host has none.
    for (int i = 0; i < 5; ++i)
      if (!all()) return 1;
    return ::dup(STDERR_FILENO) < 0 ? 0 : 3;
  });
  EXPECT_EQ(child.wait(), 0);
}

TEST_F(StorageReserveTest, GivesItsFileUpWhereTheDiskIsFullAndTakesItAnew) {
  const FaultyFileCalls plan("allocate", Fault::always(ENOSPC));
  plan->failKind("write", 1, {.error = ENOSPC});
  EXPECT_TRUE(all());
  EXPECT_FALSE(FileManager::defaultManager()->fileExistsAtPath(reserve_));
  plan->failKind("write", 1, {.error = ENOSPC});
  EXPECT_FALSE(all()) << "nothing is left to give";
  plan->clear();
  EXPECT_TRUE(all());
  EXPECT_EQ(std::filesystem::file_size(reserve_), StorageReserve::kFileLength);
}

}  // namespace
