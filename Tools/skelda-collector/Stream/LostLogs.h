#pragma once

#include <nats/nats.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Platform/Base/Mutex.h"
#include "Tools/skelda-collector/LogSink.h"
#include "Tools/skelda-collector/Stream/ServerView.h"
#include "Tools/skelda-collector/Stream/SpareCopies.h"

/// Finds the logs that the stream had acknowledged and no longer has, and has them published again.
/// Compares the copies with what the stream's leader gives out: all of them, again and again, after
/// a trouble; the latest, each minute, without one. After a trouble it also compares what the
/// servers have at the same place: where one of them has another log than the leader, and would
/// give out that one when it leads, the leader's log is published again, whether there is a copy of
/// it or not; but where that server has many elsewhere, or the same once more, it is only counted.
/// Of a log that is there twice the first place is given up, once more where a server that failed
/// has forgotten that. What is published again has an id that
/// no server knows: one that still knows the log's own would take it for a repeat, and put all that
/// comes later at other places than the rest. One thread of its own.
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

  /// A log that was acknowledged: its record in two parts. Any thread.
  void add(const std::string& id, std::string_view head, std::string_view body);
  /// Something happened by which servers may have lost some. Any thread.
  void trouble();
  /// Figures in the text form of Prometheus.
  std::string figures() const;
  /// Nothing is published any more once it returns.
  void stop();

 private:
  using Clock = std::chrono::steady_clock;
  struct Views {
    ServerView leader;
    std::vector<ServerView> others;
  };
  using Copies = std::vector<SpareCopies::Copy>;
  using Ids = ServerView::Ids;
  struct Again {
    std::string id;
    std::function<std::string()> read;  // its record
  };

  void run();
  void compare(bool isTroubled);
  Views read(SpareCopies::Time since, bool ofAll) const;
  std::vector<Again> findLost(const ServerView& leader, const Copies& copies) const;
  std::vector<Again> findDisputed(const Views& views, std::uint64_t first);
  std::string recordAt(std::uint64_t place, const std::string& id) const;
  void publishAgain(const std::vector<Again>& logs, SpareCopies::Time now);
  void giveUp(const std::vector<std::uint64_t>& places);

  const SpareCopies::Options options_;
  SpareCopies copies_;
  natsConnection* const connection_;
  jsCtx* const stream_;
  const IsReady isReady_;
  const Publish publish_;
  // The thread's own.
  Ids disputed_;  // at the last comparison
  Ids moved_;     // that had a new place since all servers were last of one mind
  SpareCopies::Time lastBegan_{};
  std::atomic<std::uint64_t> comparisons_ = 0, lost_ = 0, disputes_ = 0, again_ = 0;
  std::atomic<std::size_t> astray_ = 0;  // servers, at the last comparison

  skelda::platform::Mutex mutex_;
  skelda::platform::Condition changed_;
  bool isStopping_ GUARDED_BY(mutex_) = false;
  Clock::time_point troubledUntil_ GUARDED_BY(mutex_);
  std::thread thread_;
};
