#pragma once

#include <functional>
#include <string_view>

#include "Platform/Base/Export.h"

namespace skelda::platform {

/// The platform log: one line, one write, to standard error behind a wall-clock prefix, unless the
/// host installed a sink or SKELDA_LOG (stderr, syslog, off, or a file path) picked one.
/// Every operation is safe from any thread and never throws.
class SKELDA_EXPORT Log {
 public:
  /// Receives one line without its line feed and without the prefix, on whichever thread wrote it,
  /// several at once included. What it throws is dropped, as are lines written from inside it.
  /// Calls of the agent made from inside a sink are refused.
  using Sink = std::function<void(std::string_view line)>;

  /// Whether anybody reads: ask before formatting. One relaxed load.
  static bool enabled() noexcept;
  /// Replaces the sink; an empty one turns the log off. Returns when nobody is inside the sink
  /// before any more, unless the caller itself is.
  static void setSink(Sink sink) noexcept;
  /// Back to what SKELDA_LOG says.
  static void resetSink() noexcept;
  static void write(std::string_view line) noexcept;
  /// Whether the calling thread is inside a sink.
  static bool insideSink() noexcept;
};

}  // namespace skelda::platform
