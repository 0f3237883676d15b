#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace skelda::tools {

/// A log as it lies in the stream.
struct StreamedLog {
  std::string_view body;
  std::string_view apiKey;    // its digest
  std::string_view received;  // as the collector wrote it, or empty
  std::string_view fault;     // what the collector's reader said, or empty
};

/// The tables of schema.sql that hold what is in logs, and the columns that are written.
struct LogTable {
  enum { environments, sessionFrames, events, records, count };
  /// "skelda.events (log, place, ...)"
  static const std::array<std::string, count>& targets();
};

/// A log as rows of the database, in the text form of COPY. Texts are the log's own: what the
/// database could not hold in them (NUL, bytes that are no UTF-8) stands as U+FFFD.
struct LogRows {
  std::string digest;  // SHA-256 of the body, in hexadecimal digits
  /// For each table complete lines, but for the number of the log and a tab, which each lacks.
  std::array<std::string, LogTable::count> rows;
  std::uint64_t frames = 0;
  std::uint64_t events = 0;
  /// Where and why reading ended, and of what was wrong; empty for a log that is whole.
  std::string fault;

  /// What stands before the fault is read.
  static LogRows of(const StreamedLog& log);
  /// A log of which nothing but its being there is kept.
  static LogRows refused(const StreamedLog& log, std::string_view why);

  /// The line of skelda.logs; the columns of it.
  std::string line() const;
  static constexpr const char* kColumns =
      "digest, api_key, received, bytes, frames, events, counter, closed, device, fault";

 private:
  friend class LogRowsReader;
  std::string head_;  // what the line has before its numbers of frames and events
  std::string tail_;  // and behind them
};

}  // namespace skelda::tools
