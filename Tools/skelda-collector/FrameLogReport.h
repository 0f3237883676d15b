#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

/// What a frame log holds, or where it stops being one.
struct FrameLogReport {
  struct Session {
    std::int64_t last = 0;  // wall-clock time of the last frame that is in it, or its end
    bool ended = false;
  };

  std::uint64_t frames = 0;
  std::uint64_t sessions = 0;  // different session ids
  std::uint64_t events = 0;

  std::int64_t counter = 0;    // the log's number; 0 where it has none
  std::string installation;    // the identifier that the phone gave for it; empty for none
  std::string application;     // bundle identifier and version
  std::string device;          // model and system
  std::string closed;          // why the log was closed; empty where it was not
  std::int64_t firstTime = 0;  // wall-clock times of its frames
  std::int64_t lastTime = 0;
  std::map<std::int64_t, Session> spans;               // by session id; not more than kMost
  std::map<std::string, std::uint64_t> eventsByName;   // names decoded; not more than kMost
  std::map<std::int32_t, std::uint64_t> framesByType;  // not more than kMost
  static constexpr std::size_t kMost = 200;

  /// Empty for a log that is whole: one frame or more, end to end, each payload a JSON object, each
  /// checksum right where there is one.
  std::string fault;
  /// Where the frame begins that is not as it should be.
  std::uint64_t offset = 0;

  bool whole() const { return fault.empty(); }
  static FrameLogReport of(std::string_view bytes);
};
