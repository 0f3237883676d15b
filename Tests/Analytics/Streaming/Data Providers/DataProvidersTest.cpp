#include "Analytics/Streaming/Data Providers/ISkeldaReachability.h"
#include "Analytics/Streaming/Data Providers/SkeldaAppStateDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Streaming/Data Providers/SkeldaNodeDataProvider.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Platform/Foundation/ClassRegistry.h"
#include "Platform/WatchKit/WKExtension.h"
#include "Tests/Support/Testing.h"

namespace {

class Provider : public SkeldaDataProvider {
 public:
  static std::shared_ptr<Provider> make() { return made(new Provider()); }
  bool canSendData() const override { return hasFacts; }
  std::atomic<bool> hasFacts{false};

 private:
  Provider() : SkeldaDataProvider("Provider") {}
};

struct Observer : virtual ISkeldaDataProviderObserver, Recorded<bool> {
  void dataProviderDidUpdate(std::shared_ptr<SkeldaDataProvider>) override { add(true); }
};
struct Observed {
  explicit Observed(std::shared_ptr<SkeldaDataProvider> watched) : provider(std::move(watched)) {
    provider->registerObserver(observer);
  }
  int updates() const {
    settle(*provider);
    return static_cast<int>(observer->size());
  }
  std::shared_ptr<SkeldaDataProvider> provider;
  std::shared_ptr<Observer> observer = std::make_shared<Observer>();
};

TEST(SkeldaDataProvider, TellsEachObserverOncePerChangeUntilItIsRemoved) {
  const auto provider = Provider::make();
  const Observed observed(provider);
  provider->registerObserver(observed.observer);
  provider->registerObserver(nullptr);
  provider->removeObserver(std::make_shared<Observer>());
  provider->notifyObservers();
  EXPECT_EQ(observed.updates(), 1);
  EXPECT_GT(observed.observer.use_count(), 1) << "a provider holds its observers";
  provider->removeObserver(observed.observer);
  provider->notifyObservers();
  EXPECT_EQ(observed.updates(), 1);

  // Where there are facts, whoever comes is told at once, and again when it comes again.
  provider->hasFacts = true;
  const Observed late(provider);
  provider->registerObserver(late.observer);
  EXPECT_EQ(late.updates(), 2);
}

TEST(SkeldaAppStateDataProvider, ReadsTheStateAtStartUpAndTellsOfEachThatDiffersFromTheLast) {
  auto& extension = WKExtension::sharedExtension();
  extension.setApplicationState(WKExtension::ApplicationState::background);
  const auto provider = SkeldaAppStateDataProvider::getInstance();
  const Observed observed(provider);
  provider->startup();
  ASSERT_EQ(observed.observer->wait(1).size(), 1u);
  extension.setApplicationState(WKExtension::ApplicationState::active);
  const std::array<int, 3> steps[] = {{2, -1, 1}, {0, 2, 2}, {0, 2, 2}, {2, 0, 3}};
  for (const auto& [state, previous, updates] : steps) {
    provider->sendWatchState(state);
    EXPECT_EQ(observed.updates(), updates);
    EXPECT_EQ(provider->appStateData()->currentState(), state);
    EXPECT_EQ(provider->appStateData()->previousState(), previous);
  }
}

/// A provider of the test's own: the shared one keeps its state from test to test.
struct NetworkProvider : SkeldaNetworkReachabilityDataProvider {
  static std::shared_ptr<NetworkProvider> make() { return made(new NetworkProvider()); }
};

TEST(SkeldaNetworkReachabilityDataProvider, JudgesByItsOwnErrorDomainWhileConnected) {
  const auto provider = NetworkProvider::make();
  EXPECT_TRUE(provider->isNetworkLikelyNotReachable());
  provider->setConnectedToNetwork(true);
  EXPECT_TRUE(provider->isNetworkReachable());
  EXPECT_FALSE(provider->isNetworkLikelyNotReachable());
  provider->setNetworkLikelyNotReachable();
  EXPECT_TRUE(provider->isNetworkLikelyNotReachable());
  EXPECT_EQ(provider->lastNetworkOperationError()->domain(), "kCFErrorDomainCFNetwork");
  EXPECT_EQ(provider->lastNetworkOperationError()->code(), 1);
  const auto namesake = makeErrorDomain("kCFErrorDomainCFNetwork");
  provider->setLastNetworkOperationError(std::make_shared<Error>(namesake, 1));
  EXPECT_FALSE(provider->isNetworkLikelyNotReachable());
}

struct Monitor : Object, ISkeldaReachability {
  std::string_view className() const noexcept override { return kClassName; }
  void startup() override { ++starts; }
  int starts = 0;
};

TEST(SkeldaNetworkReachabilityDataProvider, StartsTheMonitorThatIsLinkedOnce) {
  const auto monitor = std::make_shared<Monitor>();
  auto& registry = ClassRegistry::shared();
  registry.registerClass({"SkeldaReachability", {}, {}, [monitor] { return monitor; }});
  const auto provider = NetworkProvider::make();
  for (int start = 0; start < 2; ++start) provider->startup();
  settle(*provider);
  EXPECT_EQ(monitor->starts, 1);
  EXPECT_EQ(provider->reachability(), monitor);
  registry.registerClass({"SkeldaReachability", {}, {}, nullptr});
}

std::atomic<bool> noMoreWatches = false;
extern "C" int __real_inotify_add_watch(int inotify, const char* path, std::uint32_t mask);
extern "C" int __wrap_inotify_add_watch(int inotify, const char* path, std::uint32_t mask) {
  if (!noMoreWatches) return __real_inotify_add_watch(inotify, path, mask);
  errno = ENOSPC;
  return -1;
}

struct Changes : SkeldaNodeDataProviderObserver, Recorded<std::uint32_t> {
  void fileMonitor(ISkeldaNodeDataProvider&, std::uint32_t didSeeChange) override {
    EXPECT_EQ(didSeeChange, 0u);
    add(didSeeChange);
  }
  /// Until one more than `before` was seen.
  bool waitPast(std::size_t before) { return wait(before + 1).size() > before; }
};

struct SkeldaNodeDataProviderTest : testing::Test {
  SkeldaNodeDataProviderTest() { provider_->addObserver(changes_); }
  ~SkeldaNodeDataProviderTest() override { provider_->removeObserver(changes_); }
  void start() {
    provider_->forceRefresh(nullptr);
    ASSERT_TRUE(changes_->waitPast(0));
  }
  void expectTold(const std::string& name) {
    settle();
    const std::size_t before = changes_->size();
    writeFile(watched_ + "/" + name, "x");
    EXPECT_TRUE(changes_->waitPast(before)) << name;
  }
  /// An old watch or a try that failed may still be telling: of several files, one is told.
  void expectToldInTheEnd(int round) {
    EXPECT_TRUE(becomes([&] { return std::filesystem::is_directory(watched_); }));
    bool told = false;
    for (int n = 0; n < 100 && !told; ++n) {
      settle();
      const std::size_t seen = changes_->size();
      std::error_code ignored;
      std::filesystem::create_directories(fmt::format("{}/{}.{}", watched_, round, n), ignored);
      told = changes_->waitPast(seen);
    }
    EXPECT_TRUE(told) << round;
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
  provider_->forceRefresh([&](ErrorRef error) { completed = error == nullptr; });
  ASSERT_TRUE(changes_->waitPast(0));
  settle();
  EXPECT_TRUE(completed);
  EXPECT_TRUE(std::filesystem::is_directory(watched_));
  expectTold("one");
  const auto late = std::make_shared<Changes>();
  provider_->addObserver(late);
  EXPECT_EQ(late->size(), 1u) << "told at once of the change that was seen";
  provider_->removeObserver(late);
  expectTold("two");
  EXPECT_EQ(late->size(), 1u);
}

TEST_F(SkeldaNodeDataProviderTest, AFolderThatIsRemovedOrReplacedIsWatchedAgain) {
  start();
  for (int i = 0; i < 3; ++i) {
    settle();
    const std::size_t before = changes_->size();
    std::error_code ignored;  // the folder may be made again while it is being removed
    if (i < 2) std::filesystem::remove_all(i == 0 ? watched_ : home_ / "a", ignored);
    if (i == 2) std::filesystem::rename(watched_, home_ / "moved");
    if (i == 2) std::filesystem::create_directory(watched_, ignored);
    // The watch that stands again tells of it itself.
    ASSERT_TRUE(changes_->waitPast(before)) << i;
    expectToldInTheEnd(i);
  }
}

TEST_F(SkeldaNodeDataProviderTest, AWatchMadeAgainLeavesNoDescriptor) {
  start();
  expectTold("before");
  settle();
  const std::size_t before = openDescriptors();
  for (int i = 0; i < 10; ++i) {
    const std::size_t seen = changes_->size();
    provider_->recreateDispatchSource();
    ASSERT_TRUE(changes_->waitPast(seen));
  }
  provider_->forceRefresh(nullptr);
  expectTold("after");
  EXPECT_TRUE(becomes([&] { return openDescriptors() <= before; }));
}

TEST_F(SkeldaNodeDataProviderTest, WhileNoWatchStandsACommitIsAChangeAndTheWatchIsTriedAgain) {
  start();
  const FaultyFileCalls plan;
  // No descriptor for the folder, or one for the folder and no watch.
  for (const bool hasDescriptor : {false, true}) {
    settle();
    noMoreWatches = hasDescriptor;
    if (!hasDescriptor) plan->failAll("open", EMFILE);
    provider_->recreateDispatchSource();
    // Once the first try has failed a commit is told; before, the old watch stood.
    std::size_t seen = changes_->size();
    EXPECT_TRUE(becomes([&] {
      NotificationCenter::defaultCenter().post(kSkeldaFrameLogWasCommitedNotification);
      settle();
      return changes_->size() >= seen + 3;
    }));
    noMoreWatches = false;
    plan->clear();
    seen = changes_->size();
    ASSERT_TRUE(changes_->waitPast(seen)) << "the watch that stands again tells of it itself";
    expectToldInTheEnd(hasDescriptor);
  }
  settle();
}

TEST_F(SkeldaNodeDataProviderTest, WhereNoFolderCanBeMadeItIsTriedAgain) {
  writeFile(home_ / "a", "a file in the way");
  provider_->forceRefresh(nullptr);
  settle();
  EXPECT_EQ(changes_->size(), 0u);
  std::filesystem::remove(home_ / "a");
  EXPECT_TRUE(changes_->waitPast(0));
  expectTold("one");
}

}  // namespace
