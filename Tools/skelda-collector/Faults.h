#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

/// One thing that goes wrong with uploads, as asked for on the command line:
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

  /// Throws std::invalid_argument, saying which part it does not understand.
  static Fault parse(const std::string& text);
};

/// Faults that follow each other; behind the last one all is well. Any thread.
class FaultSequence {
 public:
  using Clock = std::chrono::steady_clock;

  explicit FaultSequence(std::vector<Fault> faults) : faults_(std::move(faults)) {}

  /// What a request that arrives at `now` meets; nothing when all is well.
  std::optional<Fault> next(Clock::time_point now = Clock::now());

 private:
  std::mutex mutex_;
  std::vector<Fault> faults_;
  std::size_t current_ = 0;
  std::optional<Clock::time_point> began_;
  std::uint64_t met_ = 0;
};
