#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Base/Mutex.h"

/// The logs that were acknowledged lately, in case the servers of the stream lose them. Bounded by
/// bytes and by age; the oldest go first. They lie in a folder, so that the next process finds them
/// when this one is killed, or in memory alone. Nothing depends on them while the servers keep what
/// they acknowledged: the folder may be lost, or full. Any thread.
class SpareCopies {
 public:
  using Time = std::chrono::system_clock::time_point;
  struct Options {
    std::string folder;  // none: in memory
    std::uint64_t maxBytes = std::uint64_t{256} << 20;
    std::chrono::seconds longest{1800};
  };
  struct Figures {
    std::uint64_t copies = 0;
    std::uint64_t bytes = 0;
    std::uint64_t early = 0;   // that went for want of room before they were old
    std::uint64_t failed = 0;  // that could not be made
  };

  class Segment;
  /// Where a copy is. Holds what it is in.
  struct Copy {
    std::string id;
    Time at;
    std::shared_ptr<const Segment> segment;
    std::uint64_t offset = 0;
    std::uint32_t length = 0;

    /// What was added; empty where it cannot be read.
    std::string read() const;
  };

  /// Throws std::runtime_error where the folder cannot be used.
  explicit SpareCopies(Options options);
  ~SpareCopies();
  SpareCopies(const SpareCopies&) = delete;
  SpareCopies& operator=(const SpareCopies&) = delete;

  /// A record in two parts, which are copied once.
  void add(const std::string& id, std::string_view first, std::string_view second, Time now);
  /// All, the oldest first.
  std::vector<Copy> all() const;
  Figures figures() const;

 private:
  void recover() REQUIRES(mutex_);
  void begin() REQUIRES(mutex_);
  void drop(Time now) REQUIRES(mutex_);

  const Options options_;
  mutable skelda::platform::Mutex mutex_;
  std::deque<std::shared_ptr<Segment>> segments_ GUARDED_BY(mutex_);
  std::deque<Copy> copies_ GUARDED_BY(mutex_);
  std::uint64_t bytes_ GUARDED_BY(mutex_) = 0;
  std::uint64_t next_ GUARDED_BY(mutex_) = 1;  // number of a segment
  Figures figures_ GUARDED_BY(mutex_);
};
