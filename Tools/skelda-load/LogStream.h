#pragma once

#include <nats/nats.h>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Tools/Shared/StreamAccess.h"
#include "Tools/skelda-load/LogRows.h"

namespace skelda::tools {

/// A message of the stream, not yet acknowledged.
class StreamedMessage {
 public:
  explicit StreamedMessage(natsMsg* message) : message_(message) {}

  /// Valid as long as this is.
  StreamedLog log() const;
  /// How many there were behind it when it was given out.
  std::uint64_t behind() const;
  natsMsg* get() const { return message_.get(); }

 private:
  std::string_view header(const char* name) const;

  NatsMessage message_;
};

/// The stream of logs, read by a durable consumer that any number of processes share: what one
/// takes and does not acknowledge in time, another is given. Connects when it is first needed. One
/// thread.
class LogStream {
 public:
  struct Options {
    StreamAccess access;
    std::string durable = "skelda-load";
    int logs = 512;                              // that are taken at once
    std::int64_t bytes = std::int64_t{8} << 20;  // the same; one log may be larger
    std::chrono::milliseconds ackWait{30'000};   // what was taken and not acknowledged comes again
  };
  /// The stream could not be reached, or could not do it now: the same may succeed later.
  using Unavailable = StreamTrouble;

  /// Throws std::runtime_error for what nothing can be reached with.
  explicit LogStream(Options options);

  /// What there is, or, where there is nothing and it `waits`, what comes within a second. Throws
  /// Unavailable.
  std::vector<StreamedMessage> take(bool waits);
  /// Says that these need not come again. What of it does not arrive, comes again.
  void acknowledge(const std::vector<StreamedMessage>& messages);
  /// Puts a log that is damaged where such ones are kept; it is kept there when this returns.
  /// Throws Unavailable.
  void keepDamaged(const StreamedMessage& message, const std::string& fault);
  /// Who leads the stream, and where it ends; false where that has changed since the last call so
  /// that messages may have taken the places of others, and where the consumer has come to an end
  /// that lies before that of the last call. Throws Unavailable.
  bool isAsItWas();
  /// What the server has that leads the stream, from `since` on, as long as `seen(id, place)` wants
  /// the next; maybe once more for what a reading brought that broke off. Throws Unavailable.
  void each(std::chrono::system_clock::time_point since, const SeenMessage& seen);
  /// The messages at these places, but for those that are not there. Throws Unavailable.
  std::vector<StreamedMessage> at(const std::vector<std::uint64_t>& places);
  /// Where the consumer is.
  struct Place {
    bool isAtEnd = false;    // it was given everything, and everything was acknowledged
    std::uint64_t done = 0;  // up to here nothing is given out any more
  };
  Place place();
  /// Asks the server that leads the consumer to leave that to another one. Throws Unavailable.
  void moveConsumer();
  /// Gives the connection up; the next call makes a new one.
  void disconnect();

 private:
  void connect();
  void makeConsumer();
  void makeDamagedStream();
  std::vector<StreamedMessage> fetch(bool waits);

  const Options options_;
  NatsHandle<natsConnection, natsConnection_Destroy> connection_;
  NatsHandle<jsCtx, jsCtx_Destroy> stream_;
  NatsHandle<natsSubscription, natsSubscription_Destroy> consumer_;
  bool hasDamagedStream_ = false;
  std::string leader_;
  std::uint64_t last_ = 0;
  std::uint64_t beyond_ = 0;  // that end of the stream behind which the consumer was seen to stay
};

}  // namespace skelda::tools
