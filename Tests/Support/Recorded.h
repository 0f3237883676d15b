#pragma once

#include "Tests/Support/Testing.h"

namespace skelda::testing {

/// Whether the condition holds at some time within twenty seconds; for what nobody tells of.
template <class Condition>
bool becomes(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

/// Waits until what was posted to the actor has run, and what that posted in turn.
template <class Actor>
void settle(Actor& actor) {
  for (int hops = 0; hops < 3; ++hops) actor.syncBlock([] {});
}

/// Runs `body(0)` to `body(count - 1)` side by side, each in a thread of its own, to their ends.
template <class Body>
void inThreads(unsigned count, Body&& body) {
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < count; ++thread) {
    threads.emplace_back([&body, thread] { body(thread); });
  }
  for (auto& thread : threads) thread.join();
}

/// What was told to a test from other threads, in order. Any thread.
template <class Thing>
class Recorded {
 public:
  void add(Thing thing) {
    std::lock_guard lock(mutex_);
    things_.push_back(std::move(thing));
    changed_.notify_all();
  }
  /// All of it, once there is so much or twenty seconds have passed.
  std::vector<Thing> wait(std::size_t count,
                          std::chrono::milliseconds atMost = std::chrono::seconds(20)) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, atMost, [&] { return things_.size() >= count; });
    return things_;
  }
  /// Whether all of it meets the condition at some time within twenty seconds.
  template <class Condition>
  bool waitUntil(Condition condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return condition(things_); });
  }
  std::vector<Thing> all() { return wait(0); }
  std::size_t size() { return all().size(); }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Thing> things_;
};

}  // namespace skelda::testing
