#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Platform/Base/RetryDelay.h"
#include "Tools/skelda-load/Database.h"
#include "Tools/skelda-load/LogStream.h"

namespace skelda::tools {

/// Carries logs from the stream into the database: a batch is taken, written in a few
/// transactions, and acknowledged when these are committed. Whatever ends in between, comes again
/// and is known by its digest. To be used by one thread; another one reads logs ahead.
///
/// The consumer goes by places. Where the stream's servers lost messages and gave their places to
/// others, these are never given out; and a server that stays behind the others gives out less than
/// there is, when it leads the consumer. So after each such trouble, and at the end, what the
/// stream's leader has is compared with what the database has.
class Loader {
 public:
  struct Figures {
    std::uint64_t logs = 0;  // that were new
    std::uint64_t events = 0;
    std::uint64_t repeats = 0;
    std::uint64_t damaged = 0;     // of the new ones
    std::uint64_t behind = 0;      // logs in the stream that no loader had been given yet
    std::uint64_t passedOver = 0;  // of the new ones, those that the consumer was never given
    std::uint64_t retries = 0;     // batches and pulls that had to be tried again
  };
  using Seconds = std::chrono::seconds;
  /// Waits so long; false when it is time to end.
  using Pause = std::function<bool(platform::RetryDelay::Duration)>;
  using Tell = std::function<void(const std::string&)>;

  Loader(LogStream& stream, Database& database, Pause pause, Tell tell,
         Seconds before = std::chrono::minutes(15));

  /// Until `pause` says so, or, with `untilEmpty`, until the stream has been read.
  void run(bool untilEmpty);
  const Figures& figures() const { return figures_; }

 private:
  using Messages = std::vector<StreamedMessage>;
  using Clock = std::chrono::steady_clock;
  using Wall = std::chrono::system_clock;

  /// Waits so long; false when it is time to end, and from then on.
  bool pause(platform::RetryDelay::Duration length);
  /// Calls `attempt` until it does not throw; false when it is time to end.
  template <class Attempt>
  bool retrying(Attempt attempt);
  void noteTrouble();
  void lookForTrouble();
  struct Difference {
    std::size_t missed = 0;  // that the consumer did not give out, and that were loaded
    std::size_t coming = 0;  // that it has still to give out
  };
  /// Of what the stream's leader has, what the database has not.
  Difference compare(Wall::time_point since);
  /// Whether the server that leads the consumer has less than the stream, up to `last` at least; it
  /// is then asked to leave that to another one.
  bool isConsumerShort(const LogStream::Place& place, std::uint64_t last);
  /// From the one on of which `loaded` tells, and which it moves: what is in the database need not
  /// be tried again. While it takes in some of them, the next ones are read.
  void load(const Messages& messages, std::size_t& loaded);
  using Part = std::span<const StreamedMessage>;
  /// In one transaction; halved while the database refuses it, so that what it refuses at last is
  /// one log.
  void load(Part messages, std::span<LogRows> rows);

  LogStream& stream_;
  Database& database_;
  Pause pause_;
  Tell tell_;
  const Seconds before_;  // a trouble, the stream is compared from
  Figures figures_;
  bool isTroubled_ = true;  // what was before this process, nobody knows
  Wall::time_point troubledSince_ = Wall::now();
  Clock::time_point lastTrouble_ = Clock::now();
  Clock::time_point nextLook_, nextComparison_;
  // Where the consumer ended at the last comparison, if early.
  std::optional<std::uint64_t> shortAt_;
  bool isEnding_ = false;
};

}  // namespace skelda::tools
