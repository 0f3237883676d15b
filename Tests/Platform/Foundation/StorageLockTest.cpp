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

TEST(StorageLockTest, OneProcessHoldsAFolderUntilItEnds) {
  TemporaryDirectory folder;
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  ChildProcess holder([&] {
    const bool held = StorageLock::acquire(folder.path()).status == Status::held;
    if (::write(ready[1], held ? "y" : "n", 1) != 1) return 1;
    ::pause();
    return 0;
  });
  char answer = 0;
  ASSERT_EQ(::read(ready[0], &answer, 1), 1);
  ASSERT_EQ(answer, 'y');
  ::close(ready[0]);
  ::close(ready[1]);

  const auto refused = StorageLock::acquire(folder.path());
  EXPECT_EQ(refused.status, Status::heldByOther);
  EXPECT_EQ(refused.holder, holder.pid());
  holder.kill();
  EXPECT_EQ(StorageLock::acquire(folder.path()).status, Status::held);
  EXPECT_EQ(readFile(StorageLock::lockFilePath(folder.path())), std::to_string(::getpid()) + "\n");
  StorageLock::release(folder.path());
}

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
