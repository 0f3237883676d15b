#include "Platform/Foundation/StorageLock.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include "Tests/Support/ChildProcess.h"
#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {
namespace {

using platform::StorageLock;
using Status = StorageLock::Status;

TEST(StorageLockTest, TheHolderMayAskAgainButAForkedChildIsAnother) {
  TemporaryDirectory folder;
  ASSERT_EQ(StorageLock::acquire(folder.path()).status, Status::held);
  EXPECT_EQ(StorageLock::acquire(folder.path()).status, Status::held);
  const ::pid_t self = ::getpid();
  ChildProcess child([&] {
    const auto result = StorageLock::acquire(folder.path());
    return result.status == Status::heldByOther && result.holder == self ? 0 : 1;
  });
  EXPECT_EQ(child.wait(), 0);
  EXPECT_EQ(readFile(StorageLock::lockFilePath(folder.path())), std::to_string(self) + "\n");
  StorageLock::release(folder.path());
}

TEST(StorageLockTest, FailuresAreNeitherHeldNorAnothers) {
  TemporaryDirectory folder;
  const auto absent = StorageLock::acquire(folder / "absent");
  EXPECT_EQ(absent.status, Status::failed);
  EXPECT_EQ(absent.error->code(), ENOENT);
  const auto plan = std::make_shared<FaultPlan>();
  FaultyFileCalls calls(plan);
  plan->failKind("lock", 1, {.error = ENOLCK});
  EXPECT_EQ(StorageLock::acquire(folder.path()).status, Status::failed);
  plan->failKind("open", 1, {.error = EMFILE});
  EXPECT_EQ(StorageLock::acquire(folder.path()).error->code(), EMFILE);
  // The number in the file is a help, not the lock.
  plan->failKind("write", 1, {.error = ENOSPC});
  EXPECT_EQ(StorageLock::acquire(folder.path()).status, Status::held);
  StorageLock::release(folder.path());
}

}  // namespace
}  // namespace skelda::testing
