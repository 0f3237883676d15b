#include "Platform/Dispatch/FolderSource.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <functional>

#include "Tests/Platform/Dispatch/Waiting.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::platform {
namespace {

namespace fs = std::filesystem;

class FolderSourceTest : public ::testing::Test {
 protected:
  FolderSourceTest() {
    fs::create_directory(folder_);
    descriptor_ = open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    source_ = watch();
  }
  ~FolderSourceTest() override {
    source_->cancel();
    expectDrained(queue_);
    close(descriptor_);
  }
  std::shared_ptr<FolderSource> watch() {
    auto source = FolderSource::make(descriptor_, queue_);
    source->setEventHandler([this](unsigned events) {
      seen_ |= events;
      const std::lock_guard lock(mutex_);
      changed_.notify_all();
    });
    return source;
  }
  bool sees(unsigned events) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20),
                             [&] { return (seen_ & events) == events; });
  }

  const skelda::testing::TemporaryDirectory temporary_;
  const fs::path outer_ = temporary_.path();
  const fs::path folder_ = outer_ / "watched";
  int descriptor_ = -1;
  QueueRef queue_ = Queue::serial("events");
  std::atomic<unsigned> seen_{0};
  std::mutex mutex_;
  std::condition_variable changed_;
  std::shared_ptr<FolderSource> source_;
};

TEST_F(FolderSourceTest, EntriesThatComeGoOrAreRenamedAreToldOnceItIsResumed) {
  std::ofstream(folder_ / "first") << "early";
  expectDrained(queue_);
  EXPECT_EQ(seen_, 0U);
  source_->resume();
  EXPECT_TRUE(sees(kFolderWritten));

  const std::function<void()> changes[] = {
      [&] { std::ofstream(folder_ / "second") << ""; },
      [&] { fs::rename(folder_ / "first", folder_ / "renamed"); },
      [&] { fs::rename(folder_ / "renamed", outer_ / "moved away"); },
      [&] { fs::rename(outer_ / "moved away", folder_ / "moved in"); },
      [&] { fs::remove(folder_ / "second"); },
  };
  for (const auto& change : changes) {
    expectDrained(queue_);
    seen_ = 0;
    change();
    EXPECT_TRUE(sees(kFolderWritten));
  }
  EXPECT_EQ(seen_ & kFolderGone, 0U);
}

TEST_F(FolderSourceTest, AFolderThatIsRemovedWhileItIsOpenIsGone) {
  source_->resume();
  fs::remove(folder_);
  EXPECT_TRUE(sees(kFolderGone));
}

TEST_F(FolderSourceTest, AFolderThatIsRenamedOrReplacedIsGone) {
  const auto second = watch();
  source_->resume();
  fs::rename(folder_, outer_ / "elsewhere");
  EXPECT_TRUE(sees(kFolderGone));
  seen_ = 0;
  second->resume();
  EXPECT_TRUE(sees(kFolderGone)) << "every source of one folder hears of it";
  second->cancel();
}

TEST_F(FolderSourceTest, TheCancelHandlerComesOnceAndNothingAfterIt) {
  std::atomic<int> cancelled{0};
  source_->setCancelHandler([&] { ++cancelled; });
  source_->resume();
  queue_->suspend();
  std::ofstream(folder_ / "pending") << "";
  source_->cancel();
  source_->cancel();
  queue_->resume();
  expectDrained(queue_);
  EXPECT_EQ(cancelled, 1);
  EXPECT_EQ(seen_, 0U);

  auto letGo = watch();
  letGo->setCancelHandler([&] { ++cancelled; });
  letGo.reset();
  expectDrained(queue_);
  EXPECT_EQ(cancelled, 2);
}

}  // namespace
}  // namespace skelda::platform
