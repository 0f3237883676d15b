#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "Examples/MorningRun/Recording.h"

/// Logs a recording's events, from its start and over again, until enough are logged.
class Replay {
 public:
  using Clock = std::chrono::steady_clock;

  struct Options {
    std::uint64_t events = 0;  // calls to make; 0 is one pass of the recording
    double rate = 0;           // calls a second, by all threads together; 0 follows the recording
    double speed = 1;          // how much faster than it was recorded; 0 waits for nothing
    unsigned threads = 1;
  };
  struct Counts {
    std::uint64_t accepted = 0;
    std::uint64_t refused = 0;
    std::chrono::duration<double> took{};
  };

  Replay(const Recording& recording, Options options);

  /// Returns when every call is made. What the calls handed on may still be on its way to disk.
  Counts run();

 private:
  void work();
  Clock::duration due(std::uint64_t index) const;
  /// The recording is gone through again and again.
  const Recording::Event& eventAt(std::uint64_t index) const;

  const Recording& recording_;
  const Options options_;
  Clock::time_point began_;
  std::atomic<std::uint64_t> next_{0};
  std::atomic<std::uint64_t> accepted_{0};
  std::atomic<std::uint64_t> refused_{0};
};
