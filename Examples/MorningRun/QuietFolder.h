#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>

/// Waits for a folder tree in which nothing changes any more. The agent has no call that says "all
/// is written": it needs none, since whatever is on disk survives the process. A program that wants
/// to leave as little as possible behind, as this one does, watches the files come to rest.
class QuietFolder {
 public:
  explicit QuietFolder(std::filesystem::path folder) : folder_(std::move(folder)) {}

  /// Whether no file of the tree came, went, grew or was written for `rest`, within `atMost`.
  bool wait(std::chrono::milliseconds rest, std::chrono::milliseconds atMost) const;

 private:
  std::uint64_t fingerprint() const;

  const std::filesystem::path folder_;
};
