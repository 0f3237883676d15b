#pragma once

#include <chrono>
#include <functional>
#include <memory>

#include "Platform/Dispatch/Queue.h"

namespace skelda::platform {

/// Fires on a queue, once or again and again, until it is invalidated or its last owner lets go.
/// No tick begins after invalidate() returns, unless one is already running. Any thread.
class Timer {
 public:
  using Tick = std::function<void(Timer&)>;
  static std::shared_ptr<Timer> scheduled(std::chrono::nanoseconds interval, bool repeats,
                                          QueueRef queue, Tick tick);
  ~Timer();
  void invalidate() noexcept;
  bool isValid() const noexcept;

 private:
  struct State;
  explicit Timer(std::shared_ptr<State> state);
  std::shared_ptr<State> state_;
};

}  // namespace skelda::platform
