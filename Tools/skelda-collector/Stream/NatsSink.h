#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "Platform/Base/Mutex.h"
#include "Tools/Shared/StreamAccess.h"
#include "Tools/skelda-collector/LogSink.h"
#include "Tools/skelda-collector/Stream/LostLogs.h"

/// Publishes logs to the replicated stream of docs/fleet-stream.md, which it makes when there is
/// none, and calls one kept when the stream says so, which it does once a majority of the stream's
/// replicas has it. A stream of fewer replicas than were asked for is not good enough: then nothing
/// is kept. Many logs are under way at a time.
///
/// Servers may forget what they acknowledged. So the stream is not believed while it ends before
/// where it ended once: its leader is asked to give up the lead to one that has more. And what was
/// acknowledged lately is published again where the stream turns out to have lost it.
class NatsSink : public LogSink {
 public:
  struct Options {
    skelda::tools::StreamAccess access;
    SpareCopies::Options copies;
    int replicas = 3;
    std::chrono::milliseconds patience{8000};  // shorter than the agent's own
    std::int64_t maxBytes = -1;                // of the stream, when it is made; -1: no limit
    std::size_t maxPending = 4096;
  };

  /// Returns at once, whether or not a server is there. Throws std::runtime_error for an address
  /// that cannot be one, and for servers that let this one not in.
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
  std::string figures() const override;
  /// Whether the servers refuse this one, for good: SIGTERM has been raised then.
  bool isRefused() const { return isRefused_; }

 private:
  using Clock = std::chrono::steady_clock;
  using Message = skelda::tools::NatsMessage;
  struct Pending {
    Done done;
    bool isAgain = false;
    std::uint64_t highest = 0;  // place in the stream that was known before it was given
  };

  static void onAnswer(jsCtx*, natsMsg* message, jsPubAck* kept, jsPubAckErr* error, void* self);
  void connect();
  bool publish(Message message, Done& done, bool isAgain);
  void publishAgain(const std::string& record, const std::string& id, Done done);
  void send();
  void watch();
  std::string lookAtStream();
  std::string look(const jsStreamInfo& info, std::uint64_t highest);
  std::string doubt(const jsStreamInfo& info, std::uint64_t highest, std::chrono::seconds longest);
  Outcome judge(const jsPubAck* kept, const Pending& pending);
  void raise(std::uint64_t place);
  bool take(const natsMsg* message, Pending& pending);

  const Options options_;
  natsConnection* connection_ = nullptr;
  jsCtx* stream_ = nullptr;
  std::atomic<bool> isReady_ = false;
  std::atomic<bool> isRefused_ = false;
  std::atomic<std::uint64_t> highest_ = 0;  // place that the stream is known to have had
  std::atomic<std::uint64_t> wentBack_ = 0, disbelieved_ = 0;
  std::string seen_;              // the watcher's: who leads, and who is there
  Clock::time_point doubtSince_;  // the same: since when it ends before `highest_`
  Clock::time_point steppedDown_;
  std::atomic<std::size_t> largest_;
  skelda::platform::Mutex mutex_;
  skelda::platform::Condition toSend_;
  skelda::platform::Condition stopped_;
  bool isStopping_ GUARDED_BY(mutex_) = false;
  std::vector<Message> queue_ GUARDED_BY(mutex_);
  std::unordered_map<const natsMsg*, Pending> pending_ GUARDED_BY(mutex_);
  std::unique_ptr<LostLogs> lost_;
  std::thread sender_, watcher_;
};
