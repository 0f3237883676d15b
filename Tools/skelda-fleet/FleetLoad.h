#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <queue>
#include <string>
#include <vector>

#include "Platform/Base/RetryDelay.h"
#include "Tools/skelda-fleet/DeviceSender.h"
#include "Tools/skelda-fleet/HttpsRequests.h"
#include "Tools/skelda-fleet/LoadBodies.h"

namespace skelda::fleet {

/// Many devices, each with the sender's rules, that send to real collectors from the calling
/// thread. A device has its next log as soon as the one before was taken or given up, or, with a
/// `rate`, when it is its turn. After `seconds` there are no new logs, and what waits is sent again
/// for as long as `drainSeconds`.
class FleetLoad {
 public:
  struct Options {
    std::vector<std::string> urls;
    std::vector<std::string> apiKeys;
    std::uint32_t devices = 100;
    double seconds = 10;
    double drainSeconds = 30;
    double rate = 0;     ///< logs a second of all devices; 0 is as fast as they are taken
    std::string ledger;  ///< a file, appended to; empty for none
    HttpsRequests::Settings requests;
  };
  using Json = nlohmann::ordered_json;

  /// Throws std::system_error where the ledger cannot be opened.
  FleetLoad(const Options& options, LoadBodies& bodies);
  ~FleetLoad();

  /// Until all is sent, or the time is over, or `isToEnd` says so. Throws std::system_error where
  /// the ledger cannot be written.
  void run(const std::function<bool()>& isToEnd);
  /// What came of it; times in milliseconds.
  Json report() const;
  /// The same for a person.
  std::string text() const;
  bool isAllTaken() const { return waitingAtEnd_ == 0 && givenUp_ == 0 && malformed_ == 0; }

 private:
  using Clock = std::chrono::steady_clock;
  struct Device {
    DeviceSender sender;
    Log next = 0;
    std::uint32_t failures = 0;  // since something was taken: the next address has its turn
    platform::RetryDelay pause{std::chrono::milliseconds(50), std::chrono::seconds(5)};
  };
  struct Turn {
    Clock::time_point at;
    std::uint32_t device;
    bool isFolder;
    bool operator>(const Turn& other) const noexcept { return at > other.at; }
  };

  void commit(std::uint32_t device);
  void carryOut(std::uint32_t device);
  void send(std::uint32_t device, Log log);
  void ended(std::uint32_t device, Log log, const HttpsRequests::Result& result,
             const std::string& body);
  void whatNext(std::uint32_t device);
  void takeTurns(Clock::time_point now);
  void sendWhatWaits(Clock::time_point now);
  std::size_t waiting() const;
  void writeLedger(const std::string& line);
  void flushLedger();
  double latency(double share) const;

  const Options options_;
  LoadBodies& bodies_;
  HttpsRequests requests_;
  std::vector<Device> devices_;
  std::priority_queue<Turn, std::vector<Turn>, std::greater<>> turns_;
  Steps steps_;
  std::FILE* ledger_ = nullptr;
  bool isDraining_ = false;
  Clock::time_point lookAgainAt_{};
  double took_ = 0;  // seconds of load, without the draining
  std::uint64_t begun_ = 0, requestsBegun_ = 0, taken_ = 0, takenInTime_ = 0, bytes_ = 0;
  std::uint64_t givenUp_ = 0, malformed_ = 0, waitingAtEnd_ = 0;
  std::map<long, std::uint64_t> statuses_;
  std::map<std::string, std::uint64_t> problems_;
  mutable std::vector<std::uint32_t> latencies_;  // microseconds, of what was taken
};

}  // namespace skelda::fleet
