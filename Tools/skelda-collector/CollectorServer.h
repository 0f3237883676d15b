#pragma once

#include <httplib.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>

#include "Platform/Base/Mutex.h"
#include "Tools/skelda-collector/Arrivals.h"
#include "Tools/skelda-collector/Certificates.h"
#include "Tools/skelda-collector/Faults.h"
#include "Tools/skelda-collector/FolderSink.h"
#include "Tools/skelda-collector/GuardedServer.h"
#include "Tools/skelda-collector/LogStore.h"
#include "Tools/skelda-collector/Page.h"

/// The ingestion endpoint:
///   POST /v1/skd.do   a frame log; 200 once it is stored
///   GET /v1/logs      the stored logs, newest first (?limit=N)
///   GET /healthz
/// and the page. Requests are served side by side. Prints a line to standard output for each log
/// and each refusal.
class CollectorServer {
 public:
  struct Options {
    std::set<std::string> apiKeys;  // none: every key is taken
    std::size_t maxBytes = 64u << 20;
    Page::Options page = {};
    ConnectionLimits connections = {};
  };

  /// Speaks plain HTTP without certificates. `store` and `faults` must outlive the server. Throws
  /// std::runtime_error when the certificates cannot be used.
  CollectorServer(Options options, LogStore& store, FaultSequence& faults,
                  const Certificates* certificates);

  /// Serves a socket that listens, until stop(). False when that failed.
  bool serve(int listener);
  /// From another thread than serve(), and returns when that does. Requests that are here get their
  /// answer, without the waiting that a fault asked of them; those still arriving are broken off.
  void stop();

 private:
  class Body;

  void route();
  void routeLines();
  void routeTheRest();
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
  Arrivals arrivals_;
  FolderSink sink_{store_, arrivals_};
  Page page_;
  GuardedServer server_;
  std::atomic<std::size_t> held_ = 0;  // bytes of bodies in memory

  skelda::platform::Mutex mutex_;
  skelda::platform::Condition changed_;
  bool stopping_ GUARDED_BY(mutex_) = false;
  bool served_ GUARDED_BY(mutex_) = false;
};
