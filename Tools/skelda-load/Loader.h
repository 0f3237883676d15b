#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "Platform/Base/RetryDelay.h"
#include "Tools/skelda-load/Database.h"
#include "Tools/skelda-load/LogStream.h"

namespace skelda::tools {

/// Carries logs from the stream into the database: a batch is taken, written in one transaction,
/// and acknowledged when that is committed. Whatever ends in between, comes again and is known by
/// its digest. One thread.
class Loader {
 public:
  struct Figures {
    std::uint64_t logs = 0;  // that were new
    std::uint64_t events = 0;
    std::uint64_t repeats = 0;
    std::uint64_t damaged = 0;  // of the new ones
    std::uint64_t behind = 0;   // logs in the stream that no loader had been given yet
    std::uint64_t retries = 0;  // batches and pulls that had to be tried again
  };
  /// Waits so long; false when it is time to end.
  using Pause = std::function<bool(platform::RetryDelay::Duration)>;
  using Tell = std::function<void(const std::string&)>;

  Loader(LogStream& stream, Database& database, Pause pause, Tell tell);

  /// Until `pause` says so, or, with `untilEmpty`, until the stream has been read.
  void run(bool untilEmpty);
  const Figures& figures() const { return figures_; }

 private:
  using Messages = std::vector<StreamedMessage>;

  /// Calls `attempt` until it does not throw; false when it is time to end.
  template <class Attempt>
  bool retrying(Attempt attempt);
  void load(const Messages& messages);
  /// The part from `first` on, `count` long; halved while the database refuses it, so that what it
  /// refuses at last is one log.
  void load(const Messages& messages, std::vector<LogRows>& rows, std::size_t first,
            std::size_t count);

  LogStream& stream_;
  Database& database_;
  Pause pause_;
  Tell tell_;
  Figures figures_;
};

}  // namespace skelda::tools
