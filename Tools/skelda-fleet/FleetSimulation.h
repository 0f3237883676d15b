#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>
#include <queue>
#include <random>
#include <string>
#include <vector>

#include "Tools/skelda-fleet/DeviceSender.h"

namespace skelda::fleet {

/// Simulated time since the start of the run.
using Instant = std::chrono::microseconds;

/// What goes wrong, from `Scenario::warmUp` on and for `Scenario::length`.
enum class Trouble {
  none,
  refused,    ///< the server is down: connections are refused
  silent,     ///< the server takes a request and says nothing: time-outs
  status503,  ///< the server is up and answers 503
  status429,  ///< the same with 429
  reset,      ///< what the server took: every second answer is lost
  network,    ///< the devices have no network, and then all have it again within `spread`
  oneKey,     ///< the same for the devices of the first API key alone
  clockSkew,  ///< a twentieth of the devices takes the server's certificate for expired
  disk,       ///< the devices' disks take no blocks, so that logs stay in the folder
};

/// What the server does with more than it can take.
enum class Admission {
  queue,  ///< everything waits its turn
  shed,   ///< what would wait longer than `longestWait` is answered 503 at once
  byKey,  ///< the same, and no key gets more than half of the capacity
};

struct Scenario {
  std::uint32_t devices = 1000;
  Trouble trouble = Trouble::refused;
  Instant warmUp = std::chrono::minutes(10);
  Instant length = std::chrono::hours(1);
  /// The run ends once all that waited at the end of the trouble is delivered or lost, or then;
  /// after lost answers, only then.
  Instant after = std::chrono::hours(48);
  /// Between two logs of a device, in the mean; exponentially distributed.
  Instant every = std::chrono::minutes(30);
  Instant spread = std::chrono::seconds(1);
  double capacity = 2000;  ///< logs a second that the server takes
  Admission admission = Admission::queue;
  double longestWait = 1;  ///< seconds, of a server that does not let everything wait
  /// Of what taking a log costs: the handshake stays, where one is needed to know whom to refuse.
  double refusalCost = 0.1;
  std::uint32_t keys = 10;
  /// Of the starts of an extension: so often a log is the first after one.
  double restarts = 0.1;
  /// Share of the devices whose host asked the agent to follow the network: they send what waits
  /// when it is there again, and at each start.
  double following = 1;
  std::uint64_t seed = 1;
};

struct Figures {
  std::uint64_t logs = 0, requests = 0, taken = 0, repeats = 0, refusals = 0, timeOuts = 0;
  std::uint64_t lostOverLimit = 0, lostInFolder = 0;
  std::uint64_t logsInTrouble = 0;
  std::uint64_t waitedAtReturn = 0, wantingAtEnd = 0;
  std::uint64_t heldAtEnd = 0;  ///< by devices, the server has them not: later logs among them
  double requestsASecondBefore = 0;
  std::uint32_t peakInTrouble = 0;         ///< requests in the fullest second of it
  std::uint32_t peak = 0;                  ///< requests in the fullest second after the return
  std::optional<Instant> half, most, all;  ///< after the return: 50, 99 and 100 % of what waited
  std::optional<Instant> firstLoss;        ///< since the trouble began
  std::uint64_t othersRequests = 0, othersRefusals = 0;  ///< of keys without trouble, after it
  Instant othersLongestWait{0};
  Instant simulated{0};
};

/// Many devices, a network and a server over a simulated clock, on the calling thread.
class FleetSimulation {
 public:
  explicit FleetSimulation(const Scenario& scenario);
  Figures run();

 private:
  struct Device {
    DeviceSender sender;
    Log next = 0;
    Log nextAtReturn = 0;
    std::uint8_t generation = 0;
  };
  enum class Kind : std::uint8_t { commit, folder, network, taken, failed, lateTaken, disk, back };
  struct Event {
    Instant at;
    std::uint32_t device;
    Log log;
    Kind kind;
    std::uint8_t generation;
    bool operator>(const Event& other) const noexcept { return at > other.at; }
  };

  bool isTroubled(std::uint32_t device) const noexcept;
  bool isCutOff(std::uint32_t device) const noexcept;
  bool followsNetwork(std::uint32_t device) const noexcept;
  bool isInTrouble() const noexcept { return now_ >= begins_ && now_ < returns_; }
  void at(Instant when, Kind kind, std::uint32_t device, Log log = 0);
  void handle(const Event& event);
  void commit(std::uint32_t device);
  void startAgain(std::uint32_t device);
  void carryOut(std::uint32_t device);
  void request(std::uint32_t device, Log log);
  /// At a server that is up; `answerReaches` says whether the device hears of it.
  void serve(std::uint32_t device, Log log, bool answerReaches);
  bool mayEnter(std::uint32_t device);
  void stored(std::uint32_t device, Log log);
  void settle(std::uint32_t device, Log log);
  void setCanStore(bool can);
  void reachReturn();
  Instant drawInterval();

  const Scenario scenario_;
  const Instant begins_, returns_, end_;
  std::mt19937_64 random_;
  std::vector<Device> devices_;
  std::priority_queue<Event, std::vector<Event>, std::greater<>> events_;
  Steps steps_;
  Instant now_{0};
  double serverFreeAt_ = 0;        // seconds
  std::vector<double> keyFreeAt_;  // seconds, each at its share of the capacity
  std::uint64_t waitingSinceReturn_ = 0;
  std::uint64_t requestsThisSecond_ = 0;
  std::int64_t second_ = -1;
  bool returned_ = false;
  Figures figures_;
};

}  // namespace skelda::fleet
