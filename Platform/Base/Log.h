#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string_view>

#include "Export.h"

namespace skelda::platform {

/// The platform log: one line, one write, to standard error behind a wall-clock prefix, unless the
/// host installed a sink or SKELDA_LOG (stderr, syslog, off, or a file path) picked one. Where
/// nobody picked one, notices alone are shown.
///
/// Whoever says a line never waits for its reader: what a pipe or a terminal does not take at once,
/// and all that goes to a sink, waits in a bounded ring for a thread that is there while it is
/// needed. What finds the ring full is dropped and counted, and the number is said in the next
/// line that goes out. Every operation is safe from any thread and never throws.
class SKELDA_EXPORT Log {
 public:
  /// Who a line is for.
  enum class Kind : std::uint8_t {
    detail,  ///< for who asked: by SKELDA_LOG, a sink, or showDetails()
    notice   ///< what a developer or an operator must act on: rare, and says what to do
  };
  /// Receives one line without its line feed and without the prefix: in the order in which the
  /// lines were said, one at a time, on a thread of the log's own, so it may take its time and any
  /// lock. What it throws is dropped, as are lines written from inside it. Calls of the agent made
  /// from inside a sink are refused.
  using Sink = std::function<void(std::string_view line)>;

  /// Whether anybody reads lines of that kind: ask before formatting. One relaxed load.
  static bool enabled(Kind kind = Kind::detail) noexcept;
  /// Whether values of events, identifiers, keys and messages may stand in a line
  /// (SKELDA_LOG_VALUES=1).
  static bool showsValues() noexcept;
  static void write(std::string_view line, Kind kind = Kind::detail) noexcept;

  /// Replaces the sink; an empty one turns the log off. Returns when nobody is inside the sink
  /// before any more, unless the caller itself is.
  static void setSink(Sink sink) noexcept;
  /// Back to what SKELDA_LOG says.
  static void resetSink() noexcept;
  /// From here on details are shown too where neither SKELDA_LOG nor a sink says what is.
  static void showDetails() noexcept;

  /// Waits until every line said so far has reached its reader; false when `longest` was too short,
  /// and from inside a sink.
  static bool flush(std::chrono::milliseconds longest) noexcept;
  /// Lines of this process that reached nobody.
  static std::uint64_t droppedLines() noexcept;
  /// Whether the calling thread is inside a sink.
  static bool insideSink() noexcept;
};

}  // namespace skelda::platform
