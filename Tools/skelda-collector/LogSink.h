#pragma once

#include <cstddef>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "Tools/skelda-collector/LogCheck.h"

/// A log as it arrived.
struct ArrivedLog {
  std::string bytes;
  std::string apiKey;
  LogCheck check;
};

/// Where a server puts the logs that it takes. Any thread.
class LogSink {
 public:
  enum class Outcome {
    kept,    ///< where it is meant to be, and stays there
    repeat,  ///< the same, and it had been before
    notNow,  ///< not known to be kept: the sender has to keep it
  };
  /// `line` is what there is to say of it, such as why it could not be kept; null for nothing.
  using Done = std::function<void(Outcome, const nlohmann::ordered_json& line)>;

  virtual ~LogSink() = default;
  /// `done` is called exactly once, on any thread, also before this returns, and within a bounded
  /// time. What is answered `notNow` may be there all the same, and is then a repeat later.
  virtual void keep(ArrivedLog log, Done done) = 0;
  /// Whether a log that came now could be kept.
  virtual bool isReady() const = 0;
  /// Of a log, in bytes.
  virtual std::size_t largest() const = 0;
  /// What it has to say of itself, in the text form of Prometheus.
  virtual std::string figures() const { return {}; }
};
