#pragma once

#include <thread>
#include <vector>

namespace skelda::testing {

/// Runs `body(0)` to `body(count - 1)` side by side, each in a thread of its own, to their ends.
template <class Body>
void inThreads(unsigned count, Body&& body) {
  std::vector<std::thread> threads;
  for (unsigned thread = 0; thread < count; ++thread) {
    threads.emplace_back([&body, thread] { body(thread); });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace skelda::testing
