#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "Tools/Shared/FrameLogReader.h"

namespace skelda::tools {

/// Counts frames by type, sessions, and events by name. What it remembers is bounded: names past
/// the limit are counted together.
class FrameSummary {
 public:
  void add(const FrameRecord& frame);
  std::uint64_t frames() const noexcept { return frames_; }
  std::uint64_t sessions() const noexcept { return sessions_.size(); }
  std::uint64_t events() const noexcept { return events_; }
  /// Several lines, each with its line feed.
  std::string text() const;

 private:
  static constexpr std::size_t kMaximumNames = 10000;
  static constexpr std::size_t kMaximumSessions = 100000;

  void addEvent(const FrameRecord& frame);
  void addSession(const FrameRecord& frame);

  std::uint64_t frames_ = 0;
  std::uint64_t payloadBytes_ = 0;
  std::uint64_t wrongCrcs_ = 0;
  std::int64_t firstTime_ = 0;
  std::int64_t lastTime_ = 0;
  std::map<std::int32_t, std::uint64_t> framesByType_;
  std::set<std::int64_t> sessions_;
  std::uint64_t events_ = 0;
  std::map<std::string, std::uint64_t, std::less<>> eventsByName_;
  std::uint64_t eventsOfOtherNames_ = 0;
};

}  // namespace skelda::tools
