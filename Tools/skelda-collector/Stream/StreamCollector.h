#pragma once

#include <set>
#include <string>

#include "Tools/skelda-collector/Stream/IngestServer.h"
#include "Tools/skelda-collector/Stream/NatsSink.h"

namespace CLI {
class App;
}

/// The collector as one of several in front of a stream.
struct StreamCollector {
  IngestServer::Options server;
  NatsSink::Options sink;
  std::string keysPath;
  int seconds = 8;  // of patience with the stream

  /// Adds what the command line says of it.
  void describe(CLI::App& app);
  /// The keys of the list, one a line, and those given.
  std::set<std::string> keys(const std::set<std::string>& given) const;
  /// Serves `listener` until SIGTERM or SIGINT, which every thread has blocked; then takes nothing
  /// more, and ends once what has come is answered.
  void run(int listener, const Certificates* certificates) const;
};
