#include "Analytics/Utils/SkeldaActor/SkeldaActorDeferredQueue.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActorOperationQueue.h"
#include "Platform/Dispatch/MainQueue.h"
#include "Tests/Platform/Dispatch/Waiting.h"

namespace {

class Counter : public SkeldaActor {
 public:
  explicit Counter(QueueRef target = nullptr) : SkeldaActor("Counter", target) {}
  static std::shared_ptr<Counter> counter() { return made(new Counter); }

  void add(int n) { post<&Counter::onqueue_add>(n); }
  int total() {
    syncBlock([] {});
    return total_;
  }

 private:
  void onqueue_add(int n) {
    assertRunningInActor();
    total_ += n;
  }
  int total_ = 0;
};

void expectLeft(const std::shared_ptr<Counter>& actor) {
  EXPECT_EQ(SkeldaActor::currentActor(), nullptr);
  EXPECT_EQ(actor->activeThread(), std::thread::id());
}

struct SkeldaActorTest : testing::Test {
  ~SkeldaActorTest() override { EXPECT_EQ(skelda::swallowedExceptions(), swallowed_); }

  std::shared_ptr<Counter> actor_ = Counter::counter();
  std::shared_ptr<Counter> other_ = Counter::counter();
  std::uint64_t swallowed_ = skelda::swallowedExceptions();
};

TEST_F(SkeldaActorTest, SynchronousCallsFromWithinRunInlineThroughOtherActorsToo) {
  const auto current = &SkeldaActor::currentActor;
  const auto nest = [&] {
    EXPECT_EQ(actor_->activeThread(), std::this_thread::get_id());
    std::vector<std::shared_ptr<SkeldaActor>> seen{current()};
    actor_->syncBlock([&] { seen.push_back(current()); });
    other_->syncBlock([&] {
      seen.push_back(current());
      actor_->syncBlock([&] { seen.push_back(current()); });
      seen.push_back(current());
    });
    seen.push_back(current());
    EXPECT_EQ(seen, (decltype(seen){actor_, actor_, other_, actor_, other_, actor_}));
  };
  actor_->syncBlock(nest);
  expectLeft(actor_);
  actor_->asyncBlock(nest);
  actor_->syncBlock([] {});
  expectLeft(actor_);
  expectLeft(other_);
}

TEST_F(SkeldaActorTest, WhatASynchronousBlockThrowsReachesTheCaller) {
  struct Special : Exception {
    Special() : Exception("Special", "of its own class") {}
  };
  for (const bool fromWithin : {false, true}) {
    const auto tryAll = [&] {
      EXPECT_THROW(actor_->syncBlock([] { throw Special(); }), Special);
      EXPECT_THROW(actor_->syncBlock([] { throw std::runtime_error("any"); }), std::runtime_error);
      EXPECT_THROW(actor_->syncBlock([] { throw 7; }), int);
    };
    fromWithin ? actor_->syncBlock(tryAll) : tryAll();
    expectLeft(actor_);
  }
  actor_->add(1);
  EXPECT_EQ(actor_->total(), 1);
}

TEST_F(SkeldaActorTest, WhatAnAsynchronousBlockThrowsIsDroppedAndCounted) {
  const GroupRef group = Group::make();
  actor_->asyncBlock([] { throw Exception("Name", "reason"); });
  actor_->asyncBlock([] { throw 7; }, group);
  actor_->add(1);
  EXPECT_EQ(actor_->total(), 1);
  EXPECT_EQ(actor_->syncGroup(group, DispatchTime::now), 0);
  expectLeft(actor_);
  swallowed_ += 2;
}

TEST_F(SkeldaActorTest, WrappedBlocksCarryTheContextAndTheGuardOfTheirKind) {
  const std::thread::id owner = std::this_thread::get_id();
  std::string handedOff;
  const auto handOff = [&](const Exception& e) { handedOff = e.reason(); };
  const auto wrap = [&](Block block) {
    return actor_->wrapSyncBlock(std::move(block), handOff, owner);
  };
  std::thread([&] {
    wrap([&] {
      EXPECT_EQ(SkeldaActor::currentActor(), actor_);
      EXPECT_EQ(actor_->activeThread(), owner);
      throw Exception("Name", "handed off");
    })();
    EXPECT_THROW(wrap([] { throw 7; })(), int);
    expectLeft(actor_);
    actor_->wrapAsyncBlock([&] {
      EXPECT_EQ(actor_->activeThread(), std::this_thread::get_id());
      throw 7;
    })();
    expectLeft(actor_);
  }).join();
  EXPECT_EQ(handedOff, "handed off");
  swallowed_ += 1;
}

TEST_F(SkeldaActorTest, MissingArgumentsRaiseOrDoNothing) {
  const std::function<void()> none;
  const std::optional<std::string> nothing;
  const std::function<void()> calls[] = {
      [] { SkeldaActor(); },
      [&] { SkeldaActor actor(nothing); },
      [&] { actor_->asyncBlock(nullptr); },
      [&] { actor_->asyncBlock(none, Group::make()); },
      [&] { actor_->asyncCallback(nullptr, kSkeldaActorNoQueue); },
      [&] { actor_->asyncCallback(none, kSkeldaActorNoQueue); },
      [&] { actor_->wrapAsyncBlock(none); },
      [] { SkeldaActorDeferredQueue(); },
      [&] { SkeldaActorDeferredQueue(nothing, actor_); },
      [] { SkeldaActorDeferredQueue("Gate", nullptr); },
      [] { SkeldaActorOperationQueue(nullptr); },
      [&] { SkeldaActorOperationQueue(actor_).addOperation(nullptr); },
      [&] { SkeldaActorOperationQueue(actor_).addOperations({nullptr}, true); }};
  for (const auto& call : calls) EXPECT_THROW(call(), Exception) << &call - calls;
  actor_->syncBlock(nullptr);
  actor_->syncBlock(none);
  actor_->syncMainThreadBlock(none);
  actor_->createDeferredQueueWithDescription("Gate")->syncBlock(nullptr);
}

// The capture's destructor calls into the actor, and waits for it.
TEST_F(SkeldaActorTest, WhatAPostedBlockHeldGoesInsideTheActor) {
  Happening gone(1);
  auto held = std::shared_ptr<Counter>(actor_.get(), [&](Counter* actor) {
    actor->assertRunningInActor();
    actor->syncBlock([&] { gone.happen(); });
  });
  actor_->asyncBlock([held = std::move(held)] {});
  EXPECT_TRUE(gone.cameInTime());
}

// The block runs on another thread than its caller's, who waits inside an actor: it is still the
// caller that calls into that actor again.
TEST_F(SkeldaActorTest, AWaitingChainIsOneCaller) {
  const auto onMain = SkeldaActor::made(new Counter(Queue::main()));
  int reached = 0;
  actor_->syncBlock([&] {
    onMain->syncBlock([&] {
      EXPECT_TRUE(MainQueue::isMainThread());
      actor_->syncBlock([&] { ++reached; });
      onMain->syncBlock([&] { ++reached; });
    });
    actor_->syncMainThreadBlock([&] { actor_->syncBlock([&] { ++reached; }); });
  });
  const auto shared = Queue::serial("shared");
  const auto one = SkeldaActor::made(new Counter(shared));
  const auto other = SkeldaActor::made(new Counter(shared));
  one->syncBlock([&] { other->syncBlock([&] { one->syncBlock([&] { ++reached; }); }); });
  EXPECT_EQ(reached, 4);
}

TEST_F(SkeldaActorTest, GroupsDelaysAndDatesRunInsideTheActor) {
  const GroupRef group = Group::make();
  std::atomic<int> ran{0};
  Happening all(5);
  const auto inside = [&] {
    actor_->assertRunningInActor();
    ++ran;
    all.happen();
  };
  actor_->groupEnter(group);
  actor_->groupNotify(inside, group);
  actor_->asyncBlock(inside, group);
  actor_->syncBlock([] {});
  EXPECT_EQ(ran, 1);
  EXPECT_NE(actor_->syncGroup(group, DispatchTime::now), 0);
  actor_->groupLeave(group);
  EXPECT_EQ(actor_->syncGroup(group, DispatchTime::forever), 0);
  actor_->asyncBlock(inside, std::int64_t{1'000'000});
  actor_->asyncBlock(inside, Date::now() + Date::Microseconds(1000));
  actor_->asyncBlock(inside, Date::withTimeIntervalSince1970(-1.5));
  EXPECT_TRUE(all.cameInTime());
}

TEST_F(SkeldaActorTest, CallbacksComeOutsideTheActorOnTheQueueAskedFor) {
  Happening called(3);
  actor_->syncBlock([&] {
    bool inlineCalled = false;
    actor_->asyncCallback([&] { inlineCalled = true; }, kSkeldaActorNoQueue);
    EXPECT_TRUE(inlineCalled);
    for (const auto& on : {Queue::serial("callbacks"), QueueRef()}) {
      const auto callback = [&, on] {
        EXPECT_EQ(SkeldaActor::currentActor(), nullptr);
        EXPECT_TRUE((on != nullptr ? on : Queue::global())->isCurrent());
        called.happen();
      };
      actor_->asyncCallback(callback, on);
    }
    actor_->syncMainThreadBlock([&] {
      EXPECT_TRUE(MainQueue::isMainThread());
      actor_->syncMainThreadBlock([&] { called.happen(); });
    });
  });
  EXPECT_TRUE(called.cameInTime());
}

TEST_F(SkeldaActorTest, APostedBlockHoldsItsActor) {
  const std::weak_ptr<Counter> watched = other_;
  const QueueRef queue = other_->queue();
  queue->suspend();
  other_->asyncBlock([] {});
  other_.reset();
  EXPECT_FALSE(watched.expired());
  queue->resume();
  expectDrained(queue);
  EXPECT_TRUE(watched.expired());
}

TEST(SkeldaActorDeathTest, ACheckOutsideTheActorEndsTheProcess) {
  testing::GTEST_FLAG(death_test_style) = "threadsafe";
  EXPECT_DEATH(Counter::counter()->assertRunningInActor(), "currentActor\\] == self");
  const auto fromAnother = [outer = Counter::counter()] {
    const auto check = [&] { outer->assertRunningInActor(); };
    outer->syncBlock([&] { Counter::counter()->syncBlock(check); });
  };
  EXPECT_DEATH(fromAnother(), "currentActor\\] == self");
}

struct SkeldaActorDeferredQueueTest : testing::Test {
  std::shared_ptr<SkeldaActor> actor_ = SkeldaActor::made(new SkeldaActor("Gated"));
  std::shared_ptr<SkeldaActorDeferredQueue> gate_ =
      actor_->createDeferredQueueWithDescription("Gate");
};

TEST_F(SkeldaActorDeferredQueueTest, HoldsBlocksInOrderUntilTheGateOpens) {
  std::vector<int> ran;
  const auto post = [&](int number) {
    gate_->asyncBlock([&, number] {
      actor_->assertRunningInActor();
      ran.push_back(number);
    });
  };
  for (int i = 0; i < 200; ++i) post(i);
  actor_->syncBlock([&] { EXPECT_TRUE(ran.empty()); });
  gate_->suspend();
  gate_->resume();
  actor_->syncBlock([&] { EXPECT_TRUE(ran.empty()); });
  gate_->resume();
  for (int i = 200; i < 400; ++i) post(i);
  std::vector<int> expected(400);
  std::iota(expected.begin(), expected.end(), 0);
  gate_->syncBlock([&] { EXPECT_EQ(ran, expected); });
  gate_->syncBlock([&] { gate_.reset(); });  // nor need it outlive its own block
}

TEST_F(SkeldaActorDeferredQueueTest, ASynchronousBlockPassesAClosedGateOnlyFromInsideTheActor) {
  int ran = 0;
  actor_->syncBlock([&] { gate_->syncBlock([&] { ++ran; }); });
  EXPECT_EQ(ran, 1);
  std::atomic<bool> passed{false};
  const auto pass = [&] {
    passed = true;
    throw Exception("Name", "reason");
  };
  std::thread outside([&] { EXPECT_THROW(gate_->syncBlock(pass), Exception); });
  EXPECT_FALSE(Happening().cameInTime(20ms));
  EXPECT_FALSE(passed);
  gate_->resume();
  outside.join();
  EXPECT_TRUE(passed);
}

TEST_F(SkeldaActorDeferredQueueTest, DoesNotKeepItsActor) {
  actor_.reset();
  EXPECT_EQ(gate_->actor(), nullptr);
  gate_->asyncBlock([] { FAIL(); });
  gate_->resume();
  expectDrained(gate_->queue());
}

TEST(SkeldaActorOperationQueueTest, RunsOnlyTheMainOfOperationsInTheActorAndDropsWhatTheyThrow) {
  const auto actor = SkeldaActor::made(new SkeldaActor("Operating"));
  const auto queue = actor->operationQueue();
  const auto before = skelda::swallowedExceptions();
  std::vector<int> ran;
  const auto operation = [&](int number) {
    return std::make_shared<BlockOperation>([&, number] {
      actor->assertRunningInActor();
      ran.push_back(number);
      if (number % 2 != 0) throw number;
    });
  };
  queue->addOperation(operation(0));
  queue->addOperations({operation(1), operation(2)}, true);
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(skelda::swallowedExceptions() - before, 1U);
  actor->setOperationQueue(nullptr);  // the two hold each other
}

}  // namespace
