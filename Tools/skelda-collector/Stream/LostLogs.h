#pragma once

#include <nats/nats.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Platform/Base/Mutex.h"
#include "Tools/skelda-collector/LogSink.h"
#include "Tools/skelda-collector/Stream/SpareCopies.h"

/// Finds the logs that the stream had acknowledged and no longer has, and has them published again.
/// Compares the copies with what the stream's leader gives out, again and again after a trouble and
/// each minute without one. One thread of its own.
class LostLogs {
 public:
  /// Publishes again what was added, with this message id.
  using Publish =
      std::function<void(const std::string& record, const std::string& id, LogSink::Done done)>;
  using IsReady = std::function<bool()>;

  /// The handles outlive it.
  LostLogs(SpareCopies::Options options, natsConnection* connection, jsCtx* stream, IsReady isReady,
           Publish publish);
  ~LostLogs();
  LostLogs(const LostLogs&) = delete;
  LostLogs& operator=(const LostLogs&) = delete;

  /// A log that was acknowledged. Any thread.
  void add(const std::string& id, std::string_view record);
  /// Something happened by which servers may have lost some. Any thread.
  void trouble();
  /// Figures in the text form of Prometheus.
  std::string figures() const;
  /// Nothing is published any more once it returns.
  void stop();

 private:
  using Clock = std::chrono::steady_clock;
  using Ids = std::unordered_set<std::string>;

  void run();
  void compare();
  Ids leaderHas(SpareCopies::Time since) const;
  void publishAgain(const std::vector<SpareCopies::Copy>& lost);

  const SpareCopies::Options options_;
  SpareCopies copies_;
  natsConnection* const connection_;
  jsCtx* const stream_;
  const IsReady isReady_;
  const Publish publish_;
  /// What the leader calls a repeat though it does not have it: how often. The thread's own.
  std::unordered_map<std::string, int> denied_;
  std::atomic<std::uint64_t> comparisons_ = 0, lost_ = 0, again_ = 0;

  skelda::platform::Mutex mutex_;
  skelda::platform::Condition changed_;
  bool isStopping_ GUARDED_BY(mutex_) = false;
  Clock::time_point troubledUntil_ GUARDED_BY(mutex_);
  std::thread thread_;
};
