#include "Platform/Dispatch/FolderSource.h"
#include "Platform/Dispatch/ReadSource.h"
#include "Platform/Dispatch/Wanted.h"
#include "Tests/Platform/Dispatch/Waiting.h"

namespace {

namespace fs = std::filesystem;

std::size_t systemsWatches() {
  std::size_t count = 0;
  for (const auto& descriptor : fs::directory_iterator("/proc/self/fdinfo")) {
    std::ifstream info(descriptor.path());
    for (std::string line; std::getline(info, line);) count += line.starts_with("inotify");
  }
  return count;
}

/// Another source on the same folder, later in the row: the first has heard of what this has seen.
struct Beside {
  explicit Beside(int descriptor) : source(FolderSource::make(descriptor, queue)) {
    source->setEventHandler([this](unsigned events) { seen.add(events); });
    source->resume();
  }
  ~Beside() {
    source->cancel();
    expectDrained(queue);
  }

  Recorded<unsigned> seen;
  const QueueRef queue = Queue::serial("beside");
  const std::shared_ptr<FolderSource> source;
};

struct FolderSourceTest : testing::Test {
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
    source->setEventHandler([this](unsigned events) { seen_.add(events); });
    return source;
  }
  bool sees(unsigned event, std::size_t from = 0) {
    return seen_.waitUntil([&](auto& all) { return all.size() > from && (all.back() & event); });
  }

  const TemporaryDirectory temporary_;
  const fs::path outer_ = temporary_.path(), folder_ = outer_ / "watched";
  int descriptor_ = -1;
  QueueRef queue_ = Queue::serial("events");
  Recorded<unsigned> seen_;
  std::shared_ptr<FolderSource> source_;
};

TEST_F(FolderSourceTest, EntriesThatComeGoOrAreRenamedAreToldOnceItIsResumed) {
  std::ofstream(folder_ / "first") << "early";
  expectDrained(queue_);
  EXPECT_EQ(seen_.size(), 0U);
  source_->resume();
  EXPECT_TRUE(sees(kFolderWritten));

  const std::function<void()> changes[] = {
      [&] { std::ofstream(folder_ / "second") << ""; },
      [&] { fs::rename(folder_ / "first", folder_ / "renamed"); },
      [&] { fs::rename(folder_ / "renamed", outer_ / "moved away"); },
      [&] { fs::rename(outer_ / "moved away", folder_ / "moved in"); },
      [&] { fs::remove(folder_ / "second"); }};
  for (const auto& change : changes) {
    expectDrained(queue_);
    const std::size_t before = seen_.size();
    change();
    EXPECT_TRUE(sees(kFolderWritten, before));
  }
  for (const unsigned events : seen_.all()) EXPECT_EQ(events & kFolderGone, 0U);
  fs::remove_all(folder_);
  EXPECT_TRUE(sees(kFolderGone)) << "removed while it is open";
}

TEST_F(FolderSourceTest, WhatComesBeforeTheHandlerHasRunIsToldInOneCall) {
  Beside beside(descriptor_);
  source_->resume();
  queue_->suspend();
  for (std::size_t i = 1; i < 4; ++i) {
    fs::create_directory(folder_ / std::to_string(i));
    EXPECT_EQ(beside.seen.wait(i).size(), i);
  }
  queue_->resume();
  expectDrained(queue_);
  EXPECT_EQ(seen_.size(), 1U);
}

TEST_F(FolderSourceTest, ARemovalThatWasAnnouncedIsNotToldButTheNextOneIs) {
  Beside beside(descriptor_);
  source_->resume();
  const auto told = [&](const std::function<void()>& change) {
    const std::size_t before = seen_.size(), there = beside.seen.size();
    change();
    EXPECT_GT(beside.seen.wait(there + 1).size(), there);
    expectDrained(queue_);
    return seen_.size() - before;
  };
  for (const std::size_t expected : {0U, 1U}) {
    EXPECT_EQ(told([&] { fs::create_directory(folder_ / "own"); }), 1U);
    if (expected == 0) source_->expectRemoval("own");
    EXPECT_EQ(told([&] { fs::remove(folder_ / "own"); }), expected);
  }
}

TEST_F(FolderSourceTest, AFolderThatIsRenamedIsGoneForEverySourceOfIt) {
  const auto second = watch();
  source_->resume();
  fs::rename(folder_, outer_ / "elsewhere");
  EXPECT_TRUE(sees(kFolderGone));
  const std::size_t before = seen_.size();
  second->resume();
  EXPECT_TRUE(sees(kFolderGone, before));
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
  EXPECT_EQ(seen_.size(), 0U);

  const std::size_t before = systemsWatches();
  for (int i = 2; i < 5; ++i) {
    auto letGo = watch();
    EXPECT_GT(systemsWatches(), before);
    letGo->setCancelHandler([&] { ++cancelled; });
    letGo.reset();
    expectDrained(queue_);
    EXPECT_EQ(cancelled, i);
  }
  EXPECT_EQ(systemsWatches(), before);
}

TEST(ReadSourceTest, AHangUpIsToldOnceItIsResumedAndNothingAfterTheCancel) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
  const QueueRef queue = Queue::serial("reads");
  const auto source = ReadSource::make(ends[0], queue);
  EXPECT_FALSE(Wanted::any()) << "nothing was refused";
  std::atomic<int> told{0}, cancelled{0};
  Happening hungUp;
  source->setEventHandler([&] {
    if (++told == 1) hungUp.happen();
    source->cancel();
  });
  source->setCancelHandler([&] { ++cancelled; });
  close(ends[1]);
  EXPECT_FALSE(Happening().cameInTime(10ms));
  expectDrained(queue);
  EXPECT_EQ(told, 0);
  EXPECT_FALSE(Wanted::any()) << "nobody goes on asking for what is there";
  source->resume();
  EXPECT_TRUE(hungUp.cameInTime());
  source->cancel();
  expectDrained(queue);
  EXPECT_EQ(told, 1);
  EXPECT_EQ(cancelled, 1);
  close(ends[0]);
}

}  // namespace
