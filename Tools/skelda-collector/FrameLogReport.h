#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// What a frame log holds, or where it stops being one.
struct FrameLogReport {
  std::uint64_t frames = 0;
  std::uint64_t sessions = 0;  // different session ids
  std::uint64_t events = 0;

  /// Empty for a log that is whole: one frame or more, end to end, each payload a JSON object, each
  /// checksum right where there is one.
  std::string fault;
  /// Where the frame begins that is not as it should be.
  std::uint64_t offset = 0;

  bool whole() const { return fault.empty(); }
  static FrameLogReport of(std::string_view bytes);
};
