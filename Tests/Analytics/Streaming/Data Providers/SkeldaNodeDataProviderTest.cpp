#include "Analytics/Streaming/Data Providers/SkeldaNodeDataProvider.h"

#include <gtest/gtest.h>

#include <sys/inotify.h>

#include <atomic>
#include <cerrno>
#include <filesystem>

#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Tests/Support/Recorded.h"
#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {
std::atomic<bool> noMoreWatches = false;
}  // namespace

extern "C" int __real_inotify_add_watch(int inotify, const char* path, std::uint32_t mask);
extern "C" int __wrap_inotify_add_watch(int inotify, const char* path, std::uint32_t mask) {
  if (!noMoreWatches) return __real_inotify_add_watch(inotify, path, mask);
  errno = ENOSPC;
  return -1;
}

namespace skelda::testing {
namespace {

class Changes : public SkeldaNodeDataProviderObserver {
 public:
  void fileMonitor(ISkeldaNodeDataProvider&, std::uint32_t didSeeChange) override {
    EXPECT_EQ(didSeeChange, 0u);
    seen_.add(didSeeChange);
  }
  std::size_t count() { return seen_.size(); }
  /// Until one more than `before` was seen.
  bool waitPast(std::size_t before) { return seen_.wait(before + 1).size() > before; }

 private:
  Recorded<std::uint32_t> seen_;
};

class SkeldaNodeDataProviderTest : public ::testing::Test {
 protected:
  SkeldaNodeDataProviderTest() { provider_->addObserver(changes_); }
  ~SkeldaNodeDataProviderTest() override { provider_->removeObserver(changes_); }
  void start() {
    provider_->forceRefresh(nullptr);
    ASSERT_TRUE(changes_->waitPast(0));
  }
  /// What is written now must be told.
  void expectTold(const std::string& name) {
    settle();
    const std::size_t before = changes_->count();
    writeFile(watched_ + "/" + name, "x");
    EXPECT_TRUE(changes_->waitPast(before)) << name;
  }
  void settle() {
    provider_->syncBlock([] {});
  }
  static std::size_t openDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
  }

  TemporaryDirectory home_;
  const std::string watched_ = home_ / "a/logs";
  std::shared_ptr<Changes> changes_ = std::make_shared<Changes>();
  std::shared_ptr<SkeldaNodeDataProvider> provider_ =
      SkeldaNodeDataProvider::nodeDataProviderWithFilePath(watched_,
                                                           SkeldaStreamFileManager::fileManager());
};

TEST_F(SkeldaNodeDataProviderTest, MakesTheFolderAndTellsOfWhatIsThereAndOfWhatComes) {
  std::atomic<bool> completed = false;
  provider_->forceRefresh([&](platform::ErrorRef error) { completed = error == nullptr; });
  ASSERT_TRUE(changes_->waitPast(0));
  settle();
  EXPECT_TRUE(completed);
  EXPECT_TRUE(std::filesystem::is_directory(watched_));
  expectTold("one");
  const auto late = std::make_shared<Changes>();
  provider_->addObserver(late);
  EXPECT_EQ(late->count(), 1u) << "told at once of the change that was seen";
  provider_->removeObserver(late);
  expectTold("two");
  EXPECT_EQ(late->count(), 1u);
}

TEST_F(SkeldaNodeDataProviderTest, AFolderThatIsRemovedOrReplacedIsWatchedAgain) {
  start();
  for (int i = 0; i < 3; ++i) {
    settle();
    const std::size_t before = changes_->count();
    std::error_code ignored;  // the folder may be made again while it is being removed
    if (i == 0) {
      std::filesystem::remove_all(watched_, ignored);
    } else if (i == 1) {
      std::filesystem::remove_all(home_ / "a", ignored);
    } else {
      std::filesystem::rename(watched_, home_ / "moved");
      std::filesystem::create_directory(watched_, ignored);
    }
    // The watch that stands again tells of it itself.
    ASSERT_TRUE(changes_->waitPast(before)) << i;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!std::filesystem::is_directory(watched_) &&
           std::chrono::steady_clock::now() < deadline) {
      std::this_thread::yield();
    }
    // Of what is written from now on it may take two to tell, while the old watch goes.
    bool told = false;
    for (int n = 0; n < 100 && !told; ++n) {
      settle();
      const std::size_t seen = changes_->count();
      std::filesystem::create_directories(watched_ + "/" + std::to_string(n), ignored);
      told = changes_->waitPast(seen);
    }
    EXPECT_TRUE(told) << i;
  }
}

TEST_F(SkeldaNodeDataProviderTest, AWatchMadeAgainLeavesNoDescriptor) {
  start();
  expectTold("before");
  settle();
  const std::size_t before = openDescriptors();
  for (int i = 0; i < 10; ++i) {
    const std::size_t seen = changes_->count();
    provider_->recreateDispatchSource();
    ASSERT_TRUE(changes_->waitPast(seen));
  }
  provider_->forceRefresh(nullptr);
  expectTold("after");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (openDescriptors() > before && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_LE(openDescriptors(), before);
}

TEST_F(SkeldaNodeDataProviderTest, WhileNoWatchStandsACommitIsAChangeAndTheWatchIsTriedAgain) {
  start();
  const auto plan = std::make_shared<FaultPlan>();
  FaultyFileCalls calls(plan);
  // No descriptor for the folder, or one for the folder and no watch.
  for (const bool hasDescriptor : {false, true}) {
    settle();
    noMoreWatches = hasDescriptor;
    if (!hasDescriptor) plan->failKind("open", 1, {.error = EMFILE, .times = Fault::kForEver});
    provider_->recreateDispatchSource();
    // Once the first try has failed a commit is told; before, the old watch stood.
    std::size_t seen = changes_->count();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (changes_->count() < seen + 3 && std::chrono::steady_clock::now() < deadline) {
      platform::NotificationCenter::defaultCenter().post(kSkeldaFrameLogWasCommitedNotification);
      settle();
    }
    EXPECT_GE(changes_->count(), seen + 3) << hasDescriptor;
    noMoreWatches = false;
    plan->clear();
    seen = changes_->count();
    ASSERT_TRUE(changes_->waitPast(seen)) << "the watch that stands again tells of it itself";
    // A try that failed may still be telling; what a watch tells comes in the end.
    bool told = false;
    for (int n = 0; n < 100 && !told; ++n) {
      settle();
      seen = changes_->count();
      writeFile(watched_ + "/" + std::to_string(n) + std::to_string(hasDescriptor), "x");
      told = changes_->waitPast(seen);
    }
    EXPECT_TRUE(told);
  }
  settle();
}

TEST_F(SkeldaNodeDataProviderTest, WhereNoFolderCanBeMadeItIsTriedAgain) {
  writeFile(home_ / "a", "a file in the way");
  provider_->forceRefresh(nullptr);
  settle();
  EXPECT_EQ(changes_->count(), 0u);
  std::filesystem::remove(home_ / "a");
  EXPECT_TRUE(changes_->waitPast(0));
  expectTold("one");
}

}  // namespace
}  // namespace skelda::testing
