#include "Platform/Dispatch/MainQueue.h"
#include "Tests/Platform/Dispatch/Waiting.h"

namespace {

TEST(QueueTest, ASynchronousBlockRunsOnTheCallerWhetherTheQueueIsIdleOrBusy) {
  const QueueRef target = Queue::serial("target");
  for (const QueueRef& queue :
       {Queue::serial("serial"), Queue::concurrent("concurrent"), Queue::serial("above", target),
        Queue::concurrent("gate", target), Queue::global()}) {
    for (const bool busy : {false, true}) {
      Happening started, ended(busy ? 1 : 0);
      std::atomic<bool> release{false};
      if (busy) {
        queue->barrierAsync([&] {
          started.happen();
          while (!release) std::this_thread::yield();
          ended.happen();
        });
        ASSERT_TRUE(started.cameInTime());
        queue->async([] {});
      }
      std::thread releaser([&] { release = true; });
      std::thread::id ranOn;
      queue->barrierSync([&] {
        ranOn = std::this_thread::get_id();
        EXPECT_TRUE(queue->isCurrent());
      });
      releaser.join();
      EXPECT_EQ(ranOn, std::this_thread::get_id()) << queue->label() << busy;
      EXPECT_FALSE(queue->isCurrent());
      EXPECT_TRUE(ended.cameInTime());  // the global one waits for nobody
    }
  }
}

TEST(QueueTest, WhatASynchronousBlockThrowsReachesTheCallerAndLeavesTheQueueUsable) {
  const QueueRef target = Queue::serial("target");
  for (const QueueRef& queue : {Queue::serial("serial", target), Queue::concurrent("c", target),
                                Queue::concurrent("free"), Queue::main()}) {
    queue->async([] {});
    EXPECT_THROW(queue->barrierSync([] { throw std::out_of_range("far"); }), std::out_of_range);
    EXPECT_THROW(queue->sync([] { throw 7; }), int);
    expectDrained(queue);
  }
}

TEST(QueueTest, AQueueIsCurrentThroughTheQueuesAboveIt) {
  const QueueRef bottom = Queue::serial("bottom"), middle = Queue::concurrent("middle", bottom);
  const QueueRef top = Queue::serial("top", middle), other = Queue::serial("other", bottom);
  const auto look = [&] {
    EXPECT_TRUE(top->isCurrent() && middle->isCurrent() && bottom->isCurrent());
    EXPECT_FALSE(other->isCurrent());
  };
  top->async(look);
  top->sync(look);
  middle->sync([&] { EXPECT_TRUE(bottom->isCurrent() && !top->isCurrent()); });
}

TEST(QueueTest, BlocksOfAConcurrentQueueRunSideBySideAndABarrierAlone) {
  const QueueRef queue = Queue::concurrent("concurrent");
  // Each of the pair waits for the other: one at a time they would wait for ever.
  Happening bothRun(2), bothMet(2);
  for (int i = 0; i < 2; ++i) {
    queue->async([&] {
      bothRun.happen();
      EXPECT_TRUE(bothRun.cameInTime());
      bothMet.happen();
    });
  }
  ASSERT_TRUE(bothMet.cameInTime());

  std::atomic<int> inside{0}, barriers{0};
  for (int i = 0; i < 2000; ++i) {
    if (i % 7 == 0) {
      queue->barrierAsync([&] {
        EXPECT_EQ(inside.fetch_add(1), 0);
        for (int pause = 0; pause < 3; ++pause) std::this_thread::yield();
        EXPECT_EQ(inside.load(), 1) << "nobody comes in while a barrier block runs";
        ++barriers;
        inside.fetch_sub(1);
      });
    } else {
      queue->async([&, before = i / 7 + 1] {
        inside.fetch_add(1);
        EXPECT_GE(barriers.load(), before) << "a block does not overtake the barrier before it";
        inside.fetch_sub(1);
      });
    }
  }
  queue->barrierSync([&] { EXPECT_EQ(barriers.load(), 286); });
}

struct SuspensionTest : testing::TestWithParam<bool> {
  static QueueRef make() {
    return GetParam() ? Queue::concurrent("gate", Queue::serial("target")) : Queue::serial("q");
  }
};
INSTANTIATE_TEST_SUITE_P(SerialAndConcurrent, SuspensionTest, testing::Bool());

TEST_P(SuspensionTest, SuspensionsCountAndHoldTheOrder) {
  const QueueRef queue = make();
  std::vector<int> ran;
  queue->suspend();
  queue->suspend();
  for (int i = 0; i < 100; ++i) queue->async([&ran, i] { ran.push_back(i); });
  std::atomic<bool> synchronousRan{false};
  std::thread caller([&] { queue->sync([&] { synchronousRan = true; }); });
  queue->resume();
  const Happening later;
  EXPECT_FALSE(later.cameInTime(20ms));
  EXPECT_TRUE(ran.empty());
  EXPECT_FALSE(synchronousRan);
  queue->resume();
  caller.join();
  expectDrained(queue);
  std::vector<int> expected(100);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(ran, expected);
}

TEST_P(SuspensionTest, ABlockThatSuspendsItsQueueIsTheLastOne) {
  const QueueRef queue = make();
  const Happening suspended;
  std::atomic<bool> overran{false};
  queue->async([&, raw = queue.get()] {
    raw->suspend();
    suspended.happen();
  });
  ASSERT_TRUE(suspended.cameInTime());
  queue->async([&] { overran = true; });
  EXPECT_FALSE(Happening().cameInTime(20ms));
  EXPECT_FALSE(overran);
  queue->resume();
  expectDrained(queue);
  EXPECT_TRUE(overran);
}

TEST_P(SuspensionTest, ASuspendedQueueThatNobodyHoldsGoesWithItsBlocksAndThoseOfTheQueuesAboveIt) {
  for (const bool early : {false, true}) {
    QueueRef queue = make(), above = Queue::serial("above", queue);
    const auto held = std::make_shared<int>();
    const GroupRef group = Group::make();
    queue->suspend();
    for (const QueueRef& each : {queue, above, Queue::concurrent("gate", above)})
      each->groupAsync(group, [held] {});
    std::thread caller([above] {
      EXPECT_THROW(above->sync([] { FAIL(); }), WaitRefused);
      EXPECT_THROW(above->sync([] { FAIL(); }), WaitRefused) << "nor does it later";
    });
    if (early) above.reset();
    queue.reset();
    caller.join();
    above.reset();
    // A drain that was under way may still hold it for a moment.
    EXPECT_EQ(group->wait(dispatchTimeAfter(20s)), 0);
    EXPECT_EQ(held.use_count(), 1);
  }
}

TEST(QueueTest, ASynchronousBlockAboveAQueueThatItsCallerHoldsRunsAtOnce) {
  const QueueRef shared = Queue::serial("shared");
  for (const QueueRef& target : {shared, Queue::main(), Queue::serial("on main", Queue::main())}) {
    const QueueRef first = Queue::serial("first", target);
    const QueueRef second = Queue::serial("second", Queue::concurrent("gate", target));
    const Happening done;
    std::string order;
    second->suspend();
    second->async([&] { order += "later "; });
    first->async([&] {
      second->resume();  // what it has now waits for the target
      second->sync([&] {
        EXPECT_TRUE(second->isCurrent() && first->isCurrent());
        order += "at once ";
      });
      done.happen();
    });
    EXPECT_TRUE(done.cameInTime()) << target->label();
    expectDrained(second);
    EXPECT_EQ(order, "at once later ");
  }
}

TEST(QueueTest, WhereABlockRunsForACallerThatWaitsTheCallersQueuesAreCurrent) {
  const QueueRef shared = Queue::serial("shared"), outer = Queue::serial("outer", shared);
  const QueueRef onMain = Queue::serial("on main", Queue::main());
  int ran = 0;
  outer->sync([&] {
    const auto caller = std::this_thread::get_id();
    onMain->sync([&] {
      EXPECT_NE(std::this_thread::get_id(), caller);
      EXPECT_TRUE(outer->isCurrent() && shared->isCurrent() && onMain->isCurrent());
      Queue::serial("beside", shared)->sync([&] { ++ran; });
      EXPECT_THROW(outer->sync([] { FAIL(); }), WaitRefused);
    });
    EXPECT_FALSE(onMain->isCurrent());
  });
  EXPECT_EQ(ran, 1);
}

TEST(QueueTest, AWaitThatCannotEndIsRefusedWithTheNamesOfBothQueues) {
  const QueueRef queue = Queue::serial("the waiting one");
  const QueueRef closed = Queue::serial("the closed one", queue);
  const QueueRef alone = Queue::concurrent("with a barrier");
  closed->suspend();
  const auto expectRefusal = [](const QueueRef& on, const char* text) {
    EXPECT_THAT([&] { on->barrierSync([] { ADD_FAILURE(); }); },
                testing::ThrowsMessage<WaitRefused>(testing::HasSubstr(text)));
  };
  queue->sync([&] {
    expectRefusal(queue,
                  "platform::Queue: a synchronous block on \"the waiting one\" would wait "
                  "for ever for \"the waiting one\"");
    expectRefusal(closed, "the closed one");
  });
  alone->sync([&] { expectRefusal(alone, "with a barrier"); });
  closed->resume();
  for (const QueueRef& each : {queue, closed, alone}) expectDrained(each);
}

TEST(QueueTest, AQueueKeepsItselfAliveWhileItHasBlocks) {
  const Happening ran;
  std::weak_ptr<Queue> below;
  {
    const QueueRef queue = Queue::serial("short-lived", Queue::concurrent("as short"));
    const QueueRef gate = Queue::concurrent("shorter", queue);
    below = gate;
    for (int i = 0; i < 300; ++i) gate->async([] { std::this_thread::yield(); });
    gate->async([ran] { ran.happen(); });
  }
  EXPECT_TRUE(ran.cameInTime());
  EXPECT_TRUE(becomes([&] { return below.expired(); })) << "and no longer";
}

TEST(QueueTest, AQueueThatAlwaysHasWorkDoesNotStarveOthers) {
  std::atomic<bool> stop{false};
  struct Greedy {
    std::atomic<bool>& stop;
    Queue::Priority priority;
    QueueRef queue = Queue::serial("greedy", Queue::global(priority));
    void again() {
      if (!stop) queue->async([this] { again(); });
    }
  };
  std::list<Greedy> greedy;
  for (int i = 0; i < 16; ++i) {
    greedy.push_back({stop, i % 2 == 0 ? Queue::Priority::high : Queue::Priority::normal});
    for (int blocks = 0; blocks < 2; ++blocks) greedy.back().again();
  }
  for (const auto priority : {Queue::Priority::normal, Queue::Priority::background}) {
    const QueueRef modest = Queue::serial("modest", Queue::global(priority));
    for (int i = 0; i < 5; ++i) expectDrained(modest);
  }
  stop = true;
  for (const auto& one : greedy)  // and what was posted just before it was to stop
    for (int times = 0; times < 2; ++times) expectDrained(one.queue);
}

std::thread::id threadOfMainQueue() {
  std::thread::id id;
  Queue::main()->sync([&] {
    EXPECT_TRUE(MainQueue::isMainThread());
    EXPECT_TRUE(Queue::main()->isCurrent());
    id = std::this_thread::get_id();
  });
  return id;
}

TEST(MainQueueTest, AThreadOfTheLayerServesItAndTheQueuesAboveItEvenSynchronously) {
  EXPECT_NE(threadOfMainQueue(), std::this_thread::get_id());
  EXPECT_FALSE(MainQueue::isMainThread());
  Queue::global()->sync([] { EXPECT_FALSE(MainQueue::isMainThread()); });
  const QueueRef above = Queue::serial("above main", Queue::main());
  const QueueRef gate = Queue::concurrent("gate on main", above);
  bool isMain = false;
  gate->sync([&] { isMain = MainQueue::isMainThread(); });
  EXPECT_TRUE(isMain);
  EXPECT_THROW(above->sync([] { throw std::runtime_error("thrown"); }), std::runtime_error);
}

TEST(MainQueueTest, AHostThreadTakesItOverAndGivesItBack) {
  for (int round = 0; round < 3; ++round) {
    Happening serving, over;
    std::thread host([&] {
      // The layer's thread may be quicker, then it is too early to look.
      Queue::main()->async([&] { serving.happen(); });
      EXPECT_TRUE(MainQueue::run());
      EXPECT_FALSE(MainQueue::isMainThread());
      over.happen();
    });
    ASSERT_TRUE(serving.cameInTime());
    EXPECT_TRUE(becomes([&] { return threadOfMainQueue() == host.get_id(); }));
    EXPECT_FALSE(MainQueue::run()) << "one host at a time";
    Queue::main()->sync([] { EXPECT_FALSE(MainQueue::run()); });
    Queue::main()->async([] { MainQueue::stop(); });
    EXPECT_TRUE(over.cameInTime());
    EXPECT_NE(threadOfMainQueue(), host.get_id());
    host.join();
  }
}

TEST(MainQueueTest, AStopThatComesBeforeTheHostServesIsNotLost) {
  MainQueue::stop();
  threadOfMainQueue();  // served by the layer meanwhile
  EXPECT_TRUE(MainQueue::run());
}

TEST(MainQueueTest, AStopEndsTheHostsServiceWithTheBlockThatItComesIn) {
  const Happening busy, leave;
  std::atomic<bool> left{false};
  Queue::serial("above", Queue::main())->async([&] {
    busy.happen();
    EXPECT_TRUE(leave.cameInTime());
    left = true;
  });
  ASSERT_TRUE(busy.cameInTime());
  std::thread host([] { EXPECT_TRUE(MainQueue::run()); });
  Queue::main()->async([&] { EXPECT_TRUE(left) << "one block at a time, whoever serves"; });
  EXPECT_FALSE(Happening().cameInTime(10ms));
  leave.happen();
  while (threadOfMainQueue() != host.get_id()) std::this_thread::yield();
  std::atomic<int> afterTheStop{0};
  Queue::main()->async([&] {
    for (int i = 0; i < 20; ++i)
      Queue::main()->async([&] { afterTheStop += std::this_thread::get_id() == host.get_id(); });
    MainQueue::stop();
  });
  expectDrained(Queue::main());  // the block, which puts twenty more behind
  expectDrained(Queue::main());
  EXPECT_EQ(afterTheStop, 0);
  host.join();
}

constexpr std::size_t kThreads = 4;
constexpr int kSubmissions = 4000;

/// A queue that watches over what is promised of it.
struct WatchedQueue {
  bool isOrdered() const { return serial || (target != nullptr && target->isOrdered()); }

  void enter(bool barrier) const {
    const int before = inside.fetch_add(barrier || serial ? kAlone : 1);
    EXPECT_TRUE(barrier || serial ? before == 0 : before < kAlone) << queue->label() << before;
    if (target != nullptr) target->enter(false);
  }
  void leave(bool barrier) const {
    if (target != nullptr) target->leave(false);
    inside.fetch_sub(barrier || serial ? kAlone : 1);
  }
  /// One submission: the `number`th of its thread to this queue, if its order is promised.
  void run(bool barrier, std::size_t thread, int number) {
    enter(barrier);
    if (isOrdered() && number > 0) {
      EXPECT_LT(lastOf[thread], number);
      lastOf[thread] = number;
    }
    ran.fetch_add(1, std::memory_order_relaxed);
    leave(barrier);
  }

  static constexpr int kAlone = 1 << 20;
  const bool serial;
  const WatchedQueue* const target;
  const QueueRef below = target != nullptr ? target->queue : nullptr;
  const QueueRef queue = serial ? Queue::serial("one", below) : Queue::concurrent("many", below);
  mutable std::atomic<int> inside{0};
  std::array<int, kThreads> lastOf{};
  std::atomic<int> ran{0};
};

void submitAtRandom(std::vector<std::unique_ptr<WatchedQueue>>& queues, std::size_t thread,
                    const GroupRef& group) {
  std::mt19937 random(static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed()) +
                      static_cast<unsigned>(thread));
  for (int number = 1; number <= kSubmissions; ++number) {
    WatchedQueue* const on = queues[random() % queues.size()].get();
    Queue& queue = *on->queue;
    const auto kind = random() % 8;
    const auto run = [=] { on->run(kind >= 1 && kind <= 3, thread, number); };
    if (kind == 0) queue.sync(run);
    if (kind == 1) queue.barrierSync(run);
    if (kind == 2 || kind == 3) queue.barrierPost(run);
    if (kind == 4) queue.groupAsync(group, run);
    if (kind == 5) {
      group->enter();
      queue.after(dispatchTimeAfter(1us * (random() % 500)), [=] {
        on->run(false, thread, 0);
        group->leave();
      });
    } else if (kind == 6) {
      // A block that goes on to another queue, as the stages of a pipeline do.
      group->enter();
      queue.async([=, &queues] {
        run();
        WatchedQueue* const next = queues[static_cast<std::size_t>(number) % queues.size()].get();
        next->ran.fetch_sub(1);  // only the ones submitted from outside are counted
        next->queue->async([=] {
          next->run(false, thread, 0);
          group->leave();
        });
      });
    } else if (kind == 7) {
      queue.suspend();
      queue.async(run);
      if (random() % 4 == 0) std::this_thread::yield();
      queue.resume();
    }
  }
}

TEST(QueueStressTest, QueuesOverQueuesKeepTheirPromisesUnderAnyMix) {
  std::vector<std::unique_ptr<WatchedQueue>> queues;
  const auto add = [&queues](bool serial, const WatchedQueue* target) {
    return queues.emplace_back(new WatchedQueue{serial, target}).get();
  };
  const auto* serial = add(true, nullptr);
  const auto* concurrent = add(false, nullptr);
  for (int i = 0; i < 2; ++i) {
    const auto* aboveSerial = add(true, serial);
    add(false, serial);
    add(true, concurrent);
    add(false, concurrent);
    add(true, add(false, aboveSerial));
  }

  const GroupRef group = Group::make();
  inThreads(kThreads, [&](std::size_t i) { submitAtRandom(queues, i, group); });
  ASSERT_EQ(group->wait(dispatchTimeAfter(60s)), 0);
  // From the top down: what stands above a queue may still be on its way to it.
  for (auto at = queues.rbegin(); at != queues.rend(); ++at) expectDrained((*at)->queue);
  for (const auto& queue : queues) queue->queue->barrierSync([] {});
  int total = 0;
  for (const auto& queue : queues) {
    total += queue->ran;
    EXPECT_EQ(queue->inside, 0);
  }
  EXPECT_EQ(total, static_cast<int>(kThreads) * kSubmissions);
}

}  // namespace
