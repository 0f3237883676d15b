#pragma once

#include <httplib.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <set>
#include <string>

#include "Tools/skelda-collector/Certificates.h"
#include "Tools/skelda-collector/Faults.h"
#include "Tools/skelda-collector/LogStore.h"

/// The ingestion endpoint:
///   POST /v1/skd.do   a frame log; 200 once it is stored
///   GET /v1/logs      the stored logs, newest first (?limit=N)
///   GET /healthz
/// Requests are served side by side. Prints a line to standard output for each log and each
/// refusal.
class CollectorServer {
 public:
  struct Options {
    std::set<std::string> apiKeys;  // none: every key is taken
    std::size_t maxBytes = 64u << 20;
  };

  /// Speaks plain HTTP without certificates. `store` and `faults` must outlive the server.
  CollectorServer(Options options, LogStore& store, FaultSequence& faults,
                  const Certificates* certificates);

  /// The port that is listened on, which is `port` unless that is 0; -1 when it cannot be had.
  int bind(const std::string& address, int port);
  /// Serves until stop(). False when that failed.
  bool serve();
  /// From another thread than serve(), and returns when that does. Requests that are here get their
  /// answer, without the waiting that a fault asked of them; those still arriving are broken off.
  void stop();

 private:
  void route();
  void receive(const httplib::Request& request, httplib::Response& response,
               const httplib::ContentReader& read);
  /// What the body is answered with, the log being stored when it is whole.
  void accept(const httplib::Request& request, httplib::Response& response, const std::string& body,
              int status);
  /// False when the request is over, because the connection is.
  bool meet(const Fault& fault, const httplib::Request& request, httplib::Response& response,
            const std::string& body);
  void refuse(const httplib::Request& request, httplib::Response& response, int status,
              nlohmann::ordered_json why);
  void wait(std::chrono::milliseconds duration);

  const Options options_;
  LogStore& store_;
  FaultSequence& faults_;
  std::unique_ptr<httplib::Server> server_;

  int port_ = -1;

  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  bool stopping_ = false;
  bool served_ = false;
};
