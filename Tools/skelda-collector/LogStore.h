#pragma once

#include <cstdint>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "Tools/skelda-collector/FrameLogReport.h"

/// The folder of received logs: each as it came, in a file of its own, and received.jsonl with a
/// line for each. A log is on stable storage, and so is its line, before add() returns. Any thread.
class LogStore {
 public:
  /// Makes the folder. Throws std::system_error when that cannot be done.
  explicit LogStore(std::string folder);

  /// In hexadecimal digits.
  static std::string sha256(std::string_view bytes);

  /// Keeps a log that a client sent with that API key; the result is its line in received.jsonl.
  /// Throws std::system_error when it could not be kept; then there is no line.
  nlohmann::ordered_json add(std::string_view log, const FrameLogReport& report,
                             std::string_view apiKey);

  /// The lines of received.jsonl, newest first, at most `limit`.
  nlohmann::ordered_json newestFirst(std::size_t limit) const;
  /// Logs and bytes kept, those of earlier runs included.
  nlohmann::ordered_json totals() const;

 private:
  std::string pathOf(std::string_view name) const { return folder_ + "/" + std::string(name); }

  const std::string folder_;
  mutable std::mutex mutex_;
  std::uint64_t logs_ = 0;
  std::uint64_t bytes_ = 0;
};
