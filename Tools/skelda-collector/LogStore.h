#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Platform/Base/Mutex.h"
#include "Tools/skelda-collector/FrameLogReport.h"

/// The folder of received logs: each as it came, in a file of its own, and received.jsonl with a
/// line for each arrival. A log is on stable storage, and so is its line, before add() returns. One
/// that came before, by its SHA-256, has a line that says so and the file of the first. Any thread.
class LogStore {
 public:
  using Json = nlohmann::ordered_json;
  struct Totals {
    std::uint64_t logs = 0;  // without repeats, as the other two
    std::uint64_t bytes = 0;
    std::uint64_t events = 0;
    std::uint64_t repeats = 0;
  };
  struct Entry {
    std::size_t number = 0;  // of the line, from 1
    Json line;
  };

  /// Makes the folder. Throws std::system_error when that cannot be done.
  explicit LogStore(std::string folder);
  ~LogStore();
  LogStore(const LogStore&) = delete;
  LogStore& operator=(const LogStore&) = delete;

  /// What stands in a line under that key: lines may have been edited, and then it is nothing.
  static std::string textIn(const Json& line, const char* key);
  static std::uint64_t numberIn(const Json& line, const char* key);

  /// Keeps a log that a client sent with that API key. Throws std::system_error when it could not
  /// be kept; then there is no line.
  Entry add(std::string_view log, const FrameLogReport& report, std::string_view apiKey);

  /// The lines of received.jsonl, newest first, below the one of that number, at most `limit`.
  std::vector<Entry> newestFirst(std::uint64_t below, std::size_t limit) const;
  std::optional<Entry> entry(std::uint64_t number) const;
  /// The bytes of a line's log; nothing where its file is not there any more.
  std::optional<std::string> bytesOf(const Json& line) const;
  /// Those of earlier runs included.
  Totals totals() const;

 private:
  using Digest = std::array<unsigned char, 16>;  // the first half: enough to know a log by
  struct DigestHash {
    std::size_t operator()(const Digest& digest) const;
  };

  std::string pathOf(std::string_view name) const { return folder_ + "/" + std::string(name); }
  void openLines();
  void note(const Json& line, std::uint64_t offset, std::uint64_t end) REQUIRES(mutex_);
  Json lineAt(std::size_t number) const REQUIRES(mutex_);
  void keep(std::string_view log, const std::string& name) const;

  const std::string folder_;
  int lines_ = -1;  // received.jsonl
  mutable skelda::platform::Mutex mutex_;
  struct Place {
    std::uint64_t offset = 0;
    std::uint64_t end = 0;
  };
  std::vector<Place> places_ GUARDED_BY(mutex_);
  std::uint64_t end_ GUARDED_BY(mutex_) = 0;  // of received.jsonl
  std::unordered_map<Digest, std::size_t, DigestHash> numbers_ GUARDED_BY(mutex_);
  Totals totals_ GUARDED_BY(mutex_);
};
