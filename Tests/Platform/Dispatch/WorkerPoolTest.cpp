
#include "Tests/Platform/Dispatch/Waiting.h"

namespace {

/// Threads of the layer with names that begin so, and how often each has gone to sleep by itself.
std::map<std::string, long> layerThreads(const std::string& begin = "skelda-") {
  constexpr std::string_view kSlept = "\nvoluntary_ctxt_switches:";
  std::map<std::string, long> threads;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    const std::string status = readFile(task.path() / "status");
    if (!status.starts_with("Name:\t" + begin)) continue;
    threads[task.path().filename()] = std::stol(status.substr(status.find(kSlept) + kSlept.size()));
  }
  return threads;
}

TEST(WorkerPoolTest, SixtyFourChainedSynchronousWaitsDoNotDeadlock) {
  constexpr std::size_t kQueues = 64;
  std::array<QueueRef, kQueues> queues;
  for (auto& queue : queues) queue = Queue::serial("link");
  Happening allInside(kQueues), end(kQueues);
  for (std::size_t i = 0; i < kQueues; ++i) {
    queues[i]->async([&, i] {
      allInside.happen();
      EXPECT_TRUE(allInside.cameInTime());
      // Its queue is busy: it waits for a turn there.
      if (i + 1 < kQueues) queues[i + 1]->sync([&] { end.happen(); });
    });
  }
  queues[0]->async([&] { end.happen(); });
  EXPECT_TRUE(end.cameInTime());
  for (const auto& queue : queues) expectDrained(queue);
}

TEST(WorkerPoolTest, WorkOfAWorkerThatIsStuckInASystemCallIsTakenOver) {
  std::counting_semaphore gate(0);  // a wait that the pool cannot see
  Happening done;
  const QueueRef first = Queue::serial("stuck");
  const QueueRef second = Queue::serial("waits in the list of the first's worker");
  first->async([&] {
    second->async([&] { gate.release(); });
    gate.acquire();
    done.happen();
  });
  EXPECT_TRUE(done.cameInTime());
}

TEST(WorkerPoolTest, WhenEveryWorkerIsStuckAnotherOneIsAdded) {
  constexpr int kStuck = 24;
  std::counting_semaphore gate(0);
  Happening done(kStuck);
  for (int i = 0; i < kStuck; ++i) {
    Queue::global()->async([&] {
      gate.acquire();
      done.happen();
    });
  }
  Queue::serial("opener")->async([&] { gate.release(kStuck); });
  EXPECT_TRUE(done.cameInTime());
}

TEST(WorkerPoolTest, AnIdlePoolShrinksAndThenNothingWakesUp) {
  Happening blocked(40), gone(40);
  for (int i = 0; i < 40; ++i) {
    Queue::global()->async([&] {
      blocked.happen();
      EXPECT_TRUE(blocked.cameInTime());
      gone.happen();
    });
  }
  Queue::main()->sync([] {});
  ASSERT_TRUE(gone.cameInTime());
  EXPECT_GE(layerThreads().size(), 40U);

  // The one for events and one worker stay.
  const auto limit = std::chrono::steady_clock::now() + 30s;
  while (layerThreads().size() > 2 && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(50ms);
  EXPECT_LE(layerThreads().size(), 2U);
  EXPECT_EQ(layerThreads("skelda-worker").size(), 1U);
  // The last one may still be on its way to sleep; after that the counts stand.
  std::this_thread::sleep_for(100ms);
  const auto before = layerThreads();
  std::this_thread::sleep_for(500ms);
  EXPECT_EQ(layerThreads(), before);

  // Nor is the thread for events woken behind work that is over, unless the machine got in between.
  const QueueRef first = Queue::serial("first"), second = Queue::serial("second");
  bool isQuiet = false;
  for (int round = 0; round < 20 && !isQuiet; ++round) {
    const auto events = layerThreads("skelda-events");
    const Happening over;
    first->async([&] { second->async([&] { over.happen(); }); });
    EXPECT_TRUE(over.cameInTime());
    std::this_thread::sleep_for(50ms);
    isQuiet = layerThreads("skelda-events") == events;
  }
  EXPECT_TRUE(isQuiet);
}

TEST(ProcessExitDeathTest, ExitInTheMiddleOfWorkIsClean) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  const auto exitWhileWorking = [] {
    // Reached by nothing but the work itself: as leaky as it gets.
    struct Restless {
      QueueRef queue = Queue::serial("restless");
      static void again(const std::shared_ptr<Restless>& self) {
        self->queue->async([self, data = std::vector<int>(100)] { again(self); });
      }
    };
    for (int i = 0; i < 8; ++i) Restless::again(std::make_shared<Restless>());
    Queue::global()->after(dispatchTimeAfter(1h), [] {});
    Queue::main()->async([] { std::this_thread::sleep_for(1h); });
    Queue::global()->async([] { Queue::main()->sync([] {}); });
    Happening underWay(1000);
    const QueueRef queue = Queue::serial("counted");
    for (int i = 0; i < 1000; ++i) queue->async([&] { underWay.happen(); });
    if (!underWay.cameInTime()) std::abort();
    std::exit(0);
  };
  EXPECT_EXIT(exitWhileWorking(), testing::ExitedWithCode(0), "^$");
}

}  // namespace
