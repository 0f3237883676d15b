#pragma once

#include "Tests/Support/Basics.h"

namespace skelda::testing {

/// What every wait of the tests is bounded by.
inline constexpr std::chrono::seconds kPatience{20};

/// Whether the condition holds at some time before that; for what nobody tells of.
template <class Condition>
bool becomes(Condition condition) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
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
  for (unsigned i = 0; i < count; ++i) threads.emplace_back([&body, i] { body(i); });
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
  /// All of it, once there is so much or the time is over.
  std::vector<Thing> wait(std::size_t count, std::chrono::milliseconds atMost = kPatience) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, atMost, [&] { return things_.size() >= count; });
    return things_;
  }
  /// Whether all of it meets the condition at some time before the patience ends.
  template <class Condition>
  bool waitUntil(Condition condition) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return condition(things_); });
  }
  std::vector<Thing> all() { return wait(0); }
  std::size_t size() { return all().size(); }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Thing> things_;
};

}  // namespace skelda::testing
