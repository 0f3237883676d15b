#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Base/Mutex.h"

/// One thing that goes wrong with uploads, as asked for on the command line or the page:
///   status=500              answers with that status; a log is kept only for 200 to 299
///   delay=30s               waits before anything else
///   reset-after=100bytes    resets the connection once so much of the body is read
///   reset-answer=12bytes    takes the log, and resets the connection in the middle of the answer
///   redirect=307:URL        sends the client there
///   drop-answer             takes the log, and closes the connection without an answer
/// With for=10s the fault ends so long after the first request that met it, with times=3 after so
/// many requests; with neither it stays. Parts are separated by commas; times take ms, s, m or h.
struct Fault {
  std::optional<int> status;
  std::optional<std::chrono::milliseconds> delay;
  std::optional<std::uint64_t> resetAfter;
  std::optional<std::uint64_t> resetAnswer;
  std::optional<std::pair<int, std::string>> redirect;
  bool dropAnswer = false;

  std::optional<std::chrono::milliseconds> lasts;
  std::optional<std::uint64_t> times;

  std::string text;  // as it was asked for

  /// Throws std::invalid_argument, saying which part it does not understand.
  static Fault parse(const std::string& text);
};

/// Faults that follow each other; behind the last one all is well. Any thread.
class FaultSequence {
 public:
  using Clock = std::chrono::steady_clock;

  /// One that is being played, the first of all, or that waits for its turn.
  struct Played {
    std::string text;
    std::uint64_t met = 0;                               // requests so far
    std::optional<std::uint64_t> times;                  // requests still to come
    std::optional<std::chrono::milliseconds> remaining;  // once a request has met it
  };

  explicit FaultSequence(std::vector<Fault> faults) : faults_(faults.begin(), faults.end()) {}

  /// What a request that arrives at `now` meets; nothing when all is well.
  std::optional<Fault> next(Clock::time_point now = Clock::now());

  /// Puts one behind the others; false when there are as many as anybody can have meant.
  bool add(Fault fault);
  /// All is well from here on.
  void clear();
  std::vector<Played> list(Clock::time_point now = Clock::now());

 private:
  void dropThoseThatAreOver(Clock::time_point now) REQUIRES(mutex_);
  void dropFirst() REQUIRES(mutex_);

  skelda::platform::Mutex mutex_;
  std::deque<Fault> faults_ GUARDED_BY(mutex_);
  std::optional<Clock::time_point> began_ GUARDED_BY(mutex_);  // the first
  std::uint64_t met_ GUARDED_BY(mutex_) = 0;
};
