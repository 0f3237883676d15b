#include "Tests/Platform/Dispatch/Waiting.h"

namespace skelda::platform {
namespace {

constexpr std::size_t kThreads = 4;
constexpr int kSubmissions = 4000;

/// A queue that watches over what is promised of it.
struct WatchedQueue {
  WatchedQueue(bool isSerial, const WatchedQueue* on)
      : serial(isSerial),
        target(on),
        queue(isSerial ? Queue::serial("serial", on != nullptr ? on->queue : nullptr)
                       : Queue::concurrent("concurrent", on != nullptr ? on->queue : nullptr)) {}

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
  const QueueRef queue;
  mutable std::atomic<int> inside{0};
  std::array<int, kThreads> lastOf{};
  std::atomic<int> ran{0};
};

void submitAtRandom(std::vector<std::unique_ptr<WatchedQueue>>& queues, std::size_t thread,
                    const GroupRef& group) {
  std::mt19937 random(static_cast<unsigned>(::testing::UnitTest::GetInstance()->random_seed()) +
                      static_cast<unsigned>(thread));
  for (int number = 1; number <= kSubmissions; ++number) {
    WatchedQueue* const on = queues[random() % queues.size()].get();
    Queue& queue = *on->queue;
    switch (random() % 8) {
      case 0:
        queue.sync([=] { on->run(false, thread, number); });
        break;
      case 1:
        queue.barrierSync([=] { on->run(true, thread, number); });
        break;
      case 2:
      case 3:
        queue.barrierPost([=] { on->run(true, thread, number); });
        break;
      case 4:
        queue.groupAsync(group, [=] { on->run(false, thread, number); });
        break;
      case 5:
        group->enter();
        queue.after(dispatchTimeAfter(std::chrono::microseconds(random() % 500)), [=] {
          on->run(false, thread, 0);
          group->leave();
        });
        break;
      case 6:
        // A block that goes on to another queue, as the stages of a pipeline do.
        group->enter();
        queue.async([=, &queues] {
          on->run(false, thread, number);
          WatchedQueue* const next = queues[static_cast<std::size_t>(number) % queues.size()].get();
          next->ran.fetch_sub(1);  // only the ones submitted from outside are counted
          next->queue->async([=] {
            next->run(false, thread, 0);
            group->leave();
          });
        });
        break;
      default:
        queue.suspend();
        queue.async([=] { on->run(false, thread, number); });
        if (random() % 4 == 0) std::this_thread::yield();
        queue.resume();
    }
  }
}

TEST(QueueStressTest, QueuesOverQueuesKeepTheirPromisesUnderAnyMix) {
  std::vector<std::unique_ptr<WatchedQueue>> queues;
  const auto add = [&queues](bool serial, const WatchedQueue* target) {
    return queues.emplace_back(std::make_unique<WatchedQueue>(serial, target)).get();
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
}  // namespace skelda::platform
