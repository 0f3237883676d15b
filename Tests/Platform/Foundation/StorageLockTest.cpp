#include "Platform/Foundation/StorageLock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {
namespace {

using platform::StorageLock;
using Status = StorageLock::Status;

TEST(StorageLockTest, TheHolderMayAskAgainButAForkedChildIsAnother) {
  TemporaryDirectory folder;
  ASSERT_EQ(StorageLock::acquire(folder / "lock").status, Status::held);
  EXPECT_EQ(StorageLock::acquire(folder / "lock").status, Status::held);
  const ::pid_t self = ::getpid();
  ChildProcess child([&] {
    const auto result = StorageLock::acquire(folder / "lock");
    return result.status == Status::heldByOther && result.holder == self ? 0 : 1;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(readFile(folder / "lock"), std::to_string(self) + "\n");
  StorageLock::release(folder / "lock");
}

TEST(StorageLockTest, FailuresAreNeitherHeldNorAnothers) {
  TemporaryDirectory folder;
  const auto absent = StorageLock::acquire(folder / "absent/lock");
  EXPECT_EQ(absent.status, Status::failed);
  EXPECT_EQ(absent.error->code(), ENOENT);
  writeFile(folder / "target", "of a link");
  std::filesystem::create_symlink(folder / "target", folder / "link");
  EXPECT_EQ(StorageLock::acquire(folder / "link").status, Status::failed);
  EXPECT_EQ(readFile(folder / "target"), "of a link");
  const auto plan = std::make_shared<FaultPlan>();
  FaultyFileCalls calls(plan);
  plan->failKind("lock", 1, {.error = ENOLCK});
  EXPECT_EQ(StorageLock::acquire(folder / "lock").status, Status::failed);
  plan->failKind("open", 1, {.error = EMFILE});
  EXPECT_EQ(StorageLock::acquire(folder / "lock").error->code(), EMFILE);
  // The number in the file is a help, not the lock.
  plan->failKind("write", 1, {.error = ENOSPC});
  EXPECT_EQ(StorageLock::acquire(folder / "lock").status, Status::held);
  StorageLock::release(folder / "lock");
}

}  // namespace
}  // namespace skelda::testing
