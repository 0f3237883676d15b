#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// What the frame reader says of a log without looking into its payloads: cheap enough to be asked
/// of each log that comes.
struct LogCheck {
  std::uint64_t frames = 0;  // whole ones from the beginning
  std::string fault;  // where and why it ends before the bytes do; empty for a log that is whole
  /// False where there is not even the beginning of a frame. A log that is cut short or damaged
  /// further on is one all the same: its whole frames count.
  bool isLog = false;

  static LogCheck of(std::string_view bytes);
};
