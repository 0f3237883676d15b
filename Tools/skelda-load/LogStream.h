#pragma once

#include <nats/nats.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

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
  struct Destroy {
    void operator()(natsMsg* message) const { natsMsg_Destroy(message); }
  };
  std::string_view header(const char* name) const;

  std::unique_ptr<natsMsg, Destroy> message_;
};

/// The stream of logs, read by a durable consumer that any number of processes share: what one
/// takes and does not acknowledge in time, another is given. Connects when it is first needed. One
/// thread.
class LogStream {
 public:
  struct Options {
    std::string servers;  // nats://host:port[,host:port...]
    std::string durable = "skelda-load";
    int logs = 512;                              // that are taken at once
    std::int64_t bytes = std::int64_t{8} << 20;  // the same; one log may be larger
    std::chrono::milliseconds ackWait{30'000};   // what was taken and not acknowledged comes again
  };
  /// The stream could not be reached, or could not do it now: the same may succeed later.
  struct Unavailable : std::runtime_error {
    using std::runtime_error::runtime_error;
  };

  explicit LogStream(Options options);

  /// What there is, or, where there is nothing, what comes within a second. Throws Unavailable.
  std::vector<StreamedMessage> take();
  /// Says that these need not come again. What of it does not arrive, comes again.
  void acknowledge(const std::vector<StreamedMessage>& messages);
  /// Puts a log that is damaged where such ones are kept; it is kept there when this returns.
  /// Throws Unavailable.
  void keepDamaged(const StreamedMessage& message, const std::string& fault);
  /// Whether the consumer was given everything, and everything was acknowledged.
  bool isEmpty();
  /// Gives the connection up; the next call makes a new one.
  void disconnect();

 private:
  template <class Handle, void (*destroy)(Handle*)>
  struct Destroy {
    void operator()(Handle* handle) const { destroy(handle); }
  };
  void connect();
  void makeConsumer();
  void makeDamagedStream();
  std::vector<StreamedMessage> fetch(bool waits);

  const Options options_;
  std::unique_ptr<natsConnection, Destroy<natsConnection, natsConnection_Destroy>> connection_;
  std::unique_ptr<jsCtx, Destroy<jsCtx, jsCtx_Destroy>> stream_;
  std::unique_ptr<natsSubscription, Destroy<natsSubscription, natsSubscription_Destroy>> consumer_;
  bool hasDamagedStream_ = false;
};

}  // namespace skelda::tools
