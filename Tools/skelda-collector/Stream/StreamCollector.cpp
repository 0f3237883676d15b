#include "Tools/skelda-collector/Stream/StreamCollector.h"

#include <signal.h>
#include <sys/resource.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <stdexcept>

void StreamCollector::describe(CLI::App& app) {
  sink.access.describe(app);
  const auto group = "With --store nats://";
  app.add_option("--replicas", sink.replicas, "Servers that keep each log")
      ->check(CLI::Range(1, 5))
      ->capture_default_str()
      ->group(group);
  app.add_option("--patience", seconds, "Seconds for the stream to acknowledge a log; then 503")
      ->check(CLI::Range(1, 60))
      ->capture_default_str()
      ->group(group);
  app.add_option("--stream-bytes", sink.maxBytes,
                 "What the stream may hold, when it is made; when it is full nothing is taken")
      ->group(group);
  app.add_option("--copies", sink.copies.folder,
                 "Folder for copies of what was acknowledged lately, which the stream gets again "
                 "where it lost it; without one they are in memory, and end with the process")
      ->group(group);
  app.add_option("--copies-bytes", sink.copies.maxBytes, "Of all copies")
      ->check(CLI::PositiveNumber)
      ->capture_default_str()
      ->group(group);
  app.add_option("--keys", keysPath, "File of the API keys that may send, one a line")
      ->check(CLI::ExistingFile)
      ->group(group);
  app.add_option("--rate-by-key", server.logsASecondByKey, "Logs a second for each key; 0: any")
      ->check(CLI::NonNegativeNumber)
      ->capture_default_str()
      ->group(group);
  app.add_flag("--accept-all", server.acceptsAll,
               "Keep what is no frame log too, instead of answering 400, upon which an agent drops "
               "it")
      ->group(group);
  app.add_option("--connections", server.connections, "At a time")
      ->check(CLI::PositiveNumber)
      ->capture_default_str()
      ->group(group);
  app.add_option("--connections-by-address", server.connectionsByAddress, "0: any")
      ->capture_default_str()
      ->group(group);
  app.add_option("--held-bytes", server.maxHeldBytes, "Of all logs that are arriving or waiting")
      ->check(CLI::PositiveNumber)
      ->capture_default_str()
      ->group(group);
}

namespace {

/// As many as that, where the system lets this process open so many files.
unsigned connectionsWithin(unsigned wanted) {
  constexpr rlim_t kOthers = 128;  // files that are no connections
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return wanted;
  if (limit.rlim_cur < std::min<rlim_t>(limit.rlim_max, wanted + kOthers)) {
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, wanted + kOthers);
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) ::getrlimit(RLIMIT_NOFILE, &limit);
  }
  if (limit.rlim_cur >= wanted + kOthers) return wanted;
  const auto most =
      static_cast<unsigned>(limit.rlim_cur > 2 * kOthers ? limit.rlim_cur - kOthers : kOthers);
  std::printf("connections: %u, since no more files can be open\n", most);
  return most;
}

}  // namespace

std::set<std::string> StreamCollector::keys(const std::set<std::string>& given) const {
  std::set<std::string> keys = given;
  if (keysPath.empty()) return keys;
  std::ifstream file(keysPath);
  for (std::string line; std::getline(file, line);) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty() && line.front() != '#') keys.insert(line);
  }
  // An empty list would let everybody in.
  if (keys.empty()) throw std::runtime_error(keysPath + " holds no key");
  return keys;
}

void StreamCollector::run(int listener, const Certificates* certificates) const {
  auto limits = server;
  limits.connections = connectionsWithin(server.connections);
  auto options = sink;
  options.patience = std::chrono::seconds(seconds);
  NatsSink logs(options);
  IngestServer ingest(limits, logs, listener, certificates);
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  int signal = 0;
  sigwait(&ends, &signal);
  ingest.quiesce();
  ingest.awaitAnswers();  // bounded by the patience
  logs.stop();
  if (logs.isRefused()) throw std::runtime_error("the servers of the stream refuse this collector");
}
