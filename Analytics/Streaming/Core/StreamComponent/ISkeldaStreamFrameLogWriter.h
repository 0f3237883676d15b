#pragma once

#include <string_view>

/// The last stage: turns messages into frames on disk.
class ISkeldaStreamFrameLogWriter {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamFrameLogWriter";

  /// Repairs and commits what the last run left, or opens a fresh log; then the writer is ready,
  /// and with it the stages before it. Called once, at start-up. Any thread; returns at once.
  virtual void writePendingFiles() = 0;

 protected:
  ~ISkeldaStreamFrameLogWriter() = default;
};
