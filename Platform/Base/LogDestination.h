#pragma once

#include <time.h>

#include <memory>
#include <string>
#include <string_view>

#include "Platform/Base/Log.h"

namespace skelda::platform {

/// Where lines go. Used by one thread at a time.
class LogDestination {
 public:
  enum class Shows { nothing, notices, everything };
  enum class Result { written, wouldWait, lost };

  virtual Shows shows() const noexcept { return Shows::everything; }
  /// A sink of the host's, which is called by the log's own thread alone.
  virtual bool isSink() const noexcept { return false; }
  /// The bytes that stand for a line there.
  virtual std::string text(const timespec& when, std::string_view line) const = 0;
  /// Without waiting for anybody: takes from the front of `text` what went out.
  virtual Result writeNow(std::string_view& text) = 0;
  /// However long that takes; false where it is lost.
  virtual bool write(std::string_view text) = 0;

  static std::shared_ptr<LogDestination> off();
  static std::shared_ptr<LogDestination> toSink(Log::Sink sink);
  static std::shared_ptr<LogDestination> toStandardError(Shows shows);
  /// A regular file, made where it is absent, or a pipe or device that somebody reads. Null and
  /// errno where it is neither.
  static std::shared_ptr<LogDestination> toFile(const std::string& path);
  static std::shared_ptr<LogDestination> toSyslog(std::string socketPath);

 protected:
  ~LogDestination() = default;
};

}  // namespace skelda::platform
