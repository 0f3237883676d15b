#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "Platform/Base/Mutex.h"
#include "Tools/skelda-collector/FrameLogReport.h"
#include "Tools/skelda-collector/LogStore.h"

/// What came lately and how it adds up, for the page, in bounded memory: the last logs, rates,
/// counts by type and by event, the numbers that are missing from each watch, and a stream of what
/// is new. Any thread.
class Arrivals {
 public:
  using Json = nlohmann::ordered_json;

  /// Takes up what earlier runs left in the store.
  explicit Arrivals(const LogStore& store);

  void took(const LogStore::Entry& entry, const FrameLogReport& report);
  void refused(int status, const std::string& why);
  /// Of the last message.
  std::uint64_t sequence() const;
  /// Tells the pages, who are given `faults`, that these have changed.
  void faultsChanged(const Json& faults);

  /// The last logs and rates. "sequence" is that of the last message that it comes after.
  Json state() const;
  /// Sums, since the store began where it knows them, and the numbers that each watch's logs had.
  Json account() const;

  /// The messages that came after that one, as server-sent events, waited for until `deadline`;
  /// `sequence` becomes that of the last. Where some of them are forgotten, one that says so.
  std::string messagesAfter(std::uint64_t& sequence,
                            std::chrono::steady_clock::time_point deadline) const;
  /// No one waits any more.
  void stop();
  bool isStopped() const;

 private:
  /// The numbers that a watch's logs had, as runs without a gap.
  class Numbers {
   public:
    void add(std::int64_t number);
    Json json() const;

   private:
    std::map<std::int64_t, std::int64_t> runs_;  // last by first
    std::uint64_t again_ = 0;                    // given to another log as well
  };
  struct Watch {
    Numbers numbers;
    std::string application;
    std::string device;
    std::uint64_t logs = 0;
    std::string lastTime;
  };
  /// What came within so many seconds.
  struct Bucket {
    std::int64_t at = 0;
    std::array<std::uint64_t, 5> counts{};  // logs, events, bytes, repeats, refused
  };

  Json cardOf(const LogStore::Entry& entry, const FrameLogReport& report) const;
  void count(std::size_t which, std::uint64_t amount) REQUIRES(mutex_);
  void noteWatch(const Json& line, const FrameLogReport* report) REQUIRES(mutex_);
  void noteReport(const FrameLogReport& report) REQUIRES(mutex_);
  void tell(const char* kind, const Json& what) REQUIRES(mutex_);
  Json watches() const REQUIRES(mutex_);

  const LogStore& store_;
  mutable skelda::platform::Mutex mutex_;
  mutable skelda::platform::Condition changed_;
  bool stopped_ GUARDED_BY(mutex_) = false;
  std::deque<Json> cards_ GUARDED_BY(mutex_);  // newest first
  std::deque<Bucket> buckets_ GUARDED_BY(mutex_);
  std::map<std::string, Watch> watches_ GUARDED_BY(mutex_);  // by key and installation
  std::map<int, std::uint64_t> refused_ GUARDED_BY(mutex_);  // by status
  std::map<std::string, std::uint64_t> eventsByName_ GUARDED_BY(mutex_);
  std::map<std::int32_t, std::uint64_t> framesByType_ GUARDED_BY(mutex_);
  std::deque<std::string> messages_ GUARDED_BY(mutex_);
  std::uint64_t sequence_ GUARDED_BY(mutex_) = 0;  // of the last message
};
