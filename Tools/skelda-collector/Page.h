#pragma once

#include <httplib.h>

#include <atomic>
#include <set>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Base/Mutex.h"
#include "Tools/skelda-collector/Arrivals.h"
#include "Tools/skelda-collector/Faults.h"
#include "Tools/skelda-collector/LogStore.h"

/// One of the page's own files, which are part of the program.
struct PageFile {
  const char* path;
  const char* type;
  std::string_view bytes;
};
std::span<const PageFile> pageFiles();

/// The page in the browser, and what it asks for:
///   GET /page/state     the last logs, rates, the faults, and the token for requests that change
///   GET /page/account   sums, and the numbers that are missing from each watch
///   GET /page/log       ?n=N&from=F: the frames of a log beside its bytes
///   GET /page/events    ?name=&session=&below=N&offset=O: events of the last logs
///   GET /page/stream    what is new, as server-sent events
///   POST /page/faults   {"add": "status=503,times=1"} or {"clear": true}
/// No other site's page can ask for any of it, nor can a name that somebody else's name server has
/// for this machine; and nobody on another machine, unless that is wanted.
class Page {
 public:
  enum class Reach { loopback, anyone, off };
  struct Options {
    Reach reach = Reach::loopback;
    bool tls = true;
    std::set<std::string> hosts;  // names and addresses by which it may be called
  };

  /// The three must outlive it.
  Page(Options options, const LogStore& store, Arrivals& arrivals, FaultSequence& faults);

  void route(httplib::Server& server);
  /// Tells the pages that faults were met.
  void tellFaults();

 private:
  using Json = nlohmann::ordered_json;

  /// Whether the request may be served; if not, it is answered.
  bool admits(const httplib::Request& request, httplib::Response& response) const;
  std::string reasonAgainst(const httplib::Request& request) const;
  void get(httplib::Server& server, const char* path,
           void (Page::*serve)(const httplib::Request&, httplib::Response&));

  void sendState(const httplib::Request& request, httplib::Response& response);
  void sendAccount(const httplib::Request& request, httplib::Response& response);
  void sendLog(const httplib::Request& request, httplib::Response& response);
  void sendEvents(const httplib::Request& request, httplib::Response& response);
  void sendStream(const httplib::Request& request, httplib::Response& response);
  void changeFaults(const httplib::Request& request, httplib::Response& response,
                    const httplib::ContentReader& read);
  Json faultList() const;
  Json faultState() const;

  const Options options_;
  const std::string token_;
  const LogStore& store_;
  Arrivals& arrivals_;
  FaultSequence& faults_;
  std::atomic<int> streams_ = 0;
  skelda::platform::Mutex telling_;  // so that the last list that is told is the newest
  skelda::platform::Mutex reading_;  // one log at a time is read and decoded
};
