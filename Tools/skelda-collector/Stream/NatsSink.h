#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>

#include "Platform/Base/Mutex.h"
#include "Tools/skelda-collector/LogSink.h"

struct __natsConnection;
struct __natsMsg;
struct __jsCtx;
struct jsPubAck;
struct jsPubAckErr;

/// Publishes logs to the replicated stream of docs/fleet-stream.md, which it makes when there is
/// none, and calls one kept when the stream says so, which it does once a majority of the stream's
/// replicas has it. A stream of fewer replicas than were asked for is not good enough: then nothing
/// is kept. Many logs are under way at a time.
class NatsSink : public LogSink {
 public:
  struct Options {
    std::string servers;  // nats://host:port[,host:port...]
    int replicas = 3;
    std::chrono::milliseconds patience{8000};  // shorter than the agent's own
    std::int64_t maxBytes = -1;                // of the stream, when it is made; -1: no limit
    std::size_t maxPending = 4096;
  };

  /// Returns at once, whether or not a server is there. Throws std::runtime_error for an address
  /// that cannot be one.
  explicit NatsSink(Options options);
  /// No `done` is called after it.
  ~NatsSink() override;
  NatsSink(const NatsSink&) = delete;
  NatsSink& operator=(const NatsSink&) = delete;

  void keep(ArrivedLog log, Done done) override;
  bool isReady() const override { return isReady_; }
  std::size_t largest() const override { return largest_; }
  /// Lets everything that waits go unkept, and takes nothing more.
  void stop();

 private:
  struct Freer {
    void operator()(__natsMsg* message) const;
  };
  using Message = std::unique_ptr<__natsMsg, Freer>;

  static Message messageOf(const ArrivedLog& log);
  static void onAnswer(__jsCtx*, __natsMsg* message, jsPubAck* kept, jsPubAckErr* error,
                       void* self);
  void connect();
  void send();
  void watch();
  std::string lookAtStream();
  void end(const __natsMsg* message, Outcome outcome);

  const Options options_;
  __natsConnection* connection_ = nullptr;
  __jsCtx* stream_ = nullptr;
  std::atomic<bool> isReady_ = false;
  std::atomic<std::size_t> largest_;
  skelda::platform::Mutex mutex_;
  skelda::platform::Condition toSend_;
  skelda::platform::Condition stopped_;
  bool isStopping_ GUARDED_BY(mutex_) = false;
  std::deque<Message> queue_ GUARDED_BY(mutex_);
  std::unordered_map<const __natsMsg*, Done> pending_ GUARDED_BY(mutex_);
  std::thread sender_, watcher_;
};
