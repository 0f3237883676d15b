#pragma once

#include <cstdint>
#include <exception>

#include "Tools/skelda-collector/Arrivals.h"
#include "Tools/skelda-collector/LogSink.h"
#include "Tools/skelda-collector/LogStore.h"

/// The folder of one machine, and what its page shows of it. Has kept a log, or not, when keep()
/// returns.
class FolderSink : public LogSink {
 public:
  FolderSink(LogStore& store, Arrivals& arrivals) : store_(store), arrivals_(arrivals) {}

  void keep(ArrivedLog log, Done done) override {
    LogStore::Entry entry;
    const auto report = FrameLogReport::of(log.bytes);
    try {
      entry = store_.add(log.bytes, report, log.apiKey);
    } catch (const std::exception& error) {
      return done(Outcome::notNow, {{"error", error.what()}});
    }
    arrivals_.took(entry, report);
    const bool isRepeat = LogStore::numberIn(entry.line, "repeat") != 0;
    done(isRepeat ? Outcome::repeat : Outcome::kept, entry.line);
  }
  bool isReady() const override { return true; }
  std::size_t largest() const override { return SIZE_MAX; }

 private:
  LogStore& store_;
  Arrivals& arrivals_;
};
