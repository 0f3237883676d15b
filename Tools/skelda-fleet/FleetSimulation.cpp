#include "Tools/skelda-fleet/FleetSimulation.h"

#include <algorithm>
#include <cmath>

#include "Analytics/Networking/DataSender/SkeldaURLSessionTask.h"

namespace skelda::fleet {
namespace {

constexpr Instant kRoundTrip = std::chrono::milliseconds(60);
constexpr Instant kNoNetwork = std::chrono::milliseconds(5);
const double kTimeOut = kSkeldaURLSessionTaskDefaultTimeoutInterval;
constexpr double kLargestShare = 0.5;  // of the capacity, for one key
constexpr std::uint32_t kSkewedOneIn = 20;

double seconds(Instant instant) {
  return static_cast<double>(instant.count()) / 1e6;
}

Instant instant(double inSeconds) {
  return Instant(static_cast<std::int64_t>(inSeconds * 1e6));
}

}  // namespace

FleetSimulation::FleetSimulation(const Scenario& scenario)
    : scenario_(scenario),
      begins_(scenario.warmUp),
      returns_(scenario.warmUp + scenario.length),
      end_(returns_ + scenario.after),
      random_(scenario.seed),
      devices_(scenario.devices),
      keyFreeAt_(std::max<std::uint32_t>(scenario.keys, 1)) {
  for (std::uint32_t device = 0; device < scenario_.devices; ++device) {
    at(drawInterval(), Kind::commit, device);
  }
  if (scenario_.trouble == Trouble::disk) at(begins_, Kind::disk, 0);
  at(returns_, Kind::back, 0);
}

Instant FleetSimulation::drawInterval() {
  std::exponential_distribution<double> interval(1 / seconds(scenario_.every));
  return instant(interval(random_));
}

void FleetSimulation::at(Instant when, Kind kind, std::uint32_t device, Log log) {
  events_.push({when, device, log, kind, devices_[device].generation});
}

Figures FleetSimulation::run() {
  while (!events_.empty() && events_.top().at < end_) {
    const Event event = events_.top();
    events_.pop();
    now_ = event.at;
    handle(event);
    // Where answers were lost, what the server has is not what the devices know of.
    const bool isOver = returned_ && waitingSinceReturn_ == 0;
    if (isOver && scenario_.trouble != Trouble::reset) break;
  }
  figures_.wantingAtEnd = waitingSinceReturn_;
  for (const auto& device : devices_) figures_.heldAtEnd += device.sender.notStored();
  figures_.simulated = now_;
  return figures_;
}

bool FleetSimulation::isTroubled(std::uint32_t device) const noexcept {
  switch (scenario_.trouble) {
    case Trouble::none:
      return false;
    case Trouble::oneKey:
      return device % keyFreeAt_.size() == 0;
    case Trouble::clockSkew:
      return device % kSkewedOneIn == 0;
    default:
      return true;
  }
}

/// Has no network just now.
bool FleetSimulation::isCutOff(std::uint32_t device) const noexcept {
  const bool cuts = scenario_.trouble == Trouble::network || scenario_.trouble == Trouble::oneKey;
  return cuts && isInTrouble() && isTroubled(device);
}

bool FleetSimulation::followsNetwork(std::uint32_t device) const noexcept {
  // Spread over the numbers, so that it goes with nothing else that is made of them.
  return (device * 2654435761U) * 0x1p-32 < scenario_.following;
}

void FleetSimulation::handle(const Event& event) {
  Device& device = devices_[event.device];
  const bool isOfThisRun = event.generation == device.generation;
  steps_.clear();
  switch (event.kind) {
    case Kind::commit:
      return commit(event.device);
    case Kind::folder:
      if (isOfThisRun) device.sender.tryFolderAgain(steps_);
      break;
    case Kind::network:
      device.sender.networkReturned(steps_);
      break;
    case Kind::taken:
      stored(event.device, event.log);
      if (isOfThisRun) device.sender.ended(event.log, Ending::taken, steps_);
      break;
    case Kind::failed:
      if (isOfThisRun) device.sender.ended(event.log, Ending::failed, steps_);
      break;
    case Kind::lateTaken:
      stored(event.device, event.log);
      break;
    case Kind::disk:
      return setCanStore(false);
    case Kind::back:
      return reachReturn();
  }
  carryOut(event.device);
}

void FleetSimulation::commit(std::uint32_t index) {
  if (std::bernoulli_distribution(scenario_.restarts)(random_)) startAgain(index);
  Device& device = devices_[index];
  ++figures_.logs;
  figures_.logsInTrouble += isInTrouble() ? 1 : 0;
  device.sender.commit(device.next++, steps_);
  carryOut(index);
  at(now_ + drawInterval(), Kind::commit, index);
}

/// Who follows the network is told at each start what it is.
void FleetSimulation::startAgain(std::uint32_t index) {
  Device& device = devices_[index];
  ++device.generation;
  device.sender.restart(steps_);
  if (followsNetwork(index) && !isCutOff(index)) device.sender.networkReturned(steps_);
  carryOut(index);
  steps_.clear();
}

void FleetSimulation::carryOut(std::uint32_t index) {
  figures_.lostOverLimit += steps_.overLimit.size();
  figures_.lostInFolder += steps_.folderFull.size();
  if (!(steps_.overLimit.empty() && steps_.folderFull.empty()) && !figures_.firstLoss) {
    figures_.firstLoss = now_ - begins_;
  }
  for (const Log log : steps_.overLimit) settle(index, log);
  for (const Log log : steps_.folderFull) settle(index, log);
  if (const auto delay = steps_.tryFolderAgainAfter) {
    at(now_ + std::chrono::duration_cast<Instant>(*delay), Kind::folder, index);
  }
  for (const Log log : steps_.requests) request(index, log);
}

void FleetSimulation::request(std::uint32_t device, Log log) {
  if (isCutOff(device)) return at(now_ + kNoNetwork, Kind::failed, device, log);
  const bool inTrouble = isInTrouble() && isTroubled(device);
  const Trouble trouble = inTrouble ? scenario_.trouble : Trouble::none;
  ++figures_.requests;
  const std::int64_t second = now_.count() / 1'000'000;
  if (std::exchange(second_, second) != second) requestsThisSecond_ = 0;
  ++requestsThisSecond_;
  if (returned_ || isInTrouble()) {
    auto& peak = returned_ ? figures_.peak : figures_.peakInTrouble;
    peak = std::max(peak, static_cast<std::uint32_t>(requestsThisSecond_));
  }
  switch (trouble) {
    case Trouble::refused:
    case Trouble::clockSkew:
      ++figures_.refusals;
      return at(now_ + kRoundTrip, Kind::failed, device, log);
    case Trouble::silent:
      ++figures_.timeOuts;
      return at(now_ + instant(kTimeOut), Kind::failed, device, log);
    case Trouble::status503:
    case Trouble::status429:
      ++figures_.refusals;
      return at(now_ + 2 * kRoundTrip, Kind::failed, device, log);
    case Trouble::reset:
      return serve(device, log, (random_() & 1) == 0);
    default:
      return serve(device, log, true);
  }
}

bool FleetSimulation::mayEnter(std::uint32_t device) {
  const double now = seconds(now_);
  if (scenario_.admission == Admission::queue) return true;
  if (serverFreeAt_ - now > scenario_.longestWait) return false;
  if (scenario_.admission == Admission::shed) return true;
  double& freeAt = keyFreeAt_[device % keyFreeAt_.size()];
  if (freeAt - now > scenario_.longestWait) return false;
  freeAt = std::max(freeAt, now) + 1 / (scenario_.capacity * kLargestShare);
  return true;
}

void FleetSimulation::serve(std::uint32_t device, Log log, bool answerReaches) {
  const double now = seconds(now_);
  const bool isOther = returned_ && !isTroubled(device);
  figures_.othersRequests += isOther ? 1 : 0;
  const bool enters = mayEnter(device);
  serverFreeAt_ =
      std::max(serverFreeAt_, now) + (enters ? 1 : scenario_.refusalCost) / scenario_.capacity;
  if (!enters) {
    ++figures_.refusals;
    figures_.othersRefusals += isOther ? 1 : 0;
    return at(now_ + 2 * kRoundTrip, Kind::failed, device, log);
  }
  const Instant done = instant(serverFreeAt_) + 2 * kRoundTrip;
  if (isOther) figures_.othersLongestWait = std::max(figures_.othersLongestWait, done - now_);
  if (done - now_ > instant(kTimeOut)) {
    // The device is gone by then, the server works all the same.
    ++figures_.timeOuts;
    at(now_ + instant(kTimeOut), Kind::failed, device, log);
    return at(done, Kind::lateTaken, device, log);
  }
  if (answerReaches) return at(done, Kind::taken, device, log);
  at(done, Kind::lateTaken, device, log);
  at(done, Kind::failed, device, log);
}

void FleetSimulation::stored(std::uint32_t index, Log log) {
  ++figures_.taken;
  if (devices_[index].sender.markStored(log)) return settle(index, log);
  ++figures_.repeats;
}

/// One of those that waited when the trouble ended is with the server, or lost.
void FleetSimulation::settle(std::uint32_t index, Log log) {
  if (!returned_ || log >= devices_[index].nextAtReturn || waitingSinceReturn_ == 0) return;
  --waitingSinceReturn_;
  const Instant since = now_ - returns_;
  const std::uint64_t waited = figures_.waitedAtReturn;
  if (!figures_.half && waitingSinceReturn_ * 2 <= waited) figures_.half = since;
  if (!figures_.most && waitingSinceReturn_ * 100 <= waited) figures_.most = since;
  if (waitingSinceReturn_ == 0) figures_.all = since;
}

void FleetSimulation::setCanStore(bool can) {
  for (auto& device : devices_) device.sender.setCanStore(can);
}

void FleetSimulation::reachReturn() {
  returned_ = true;
  setCanStore(true);
  figures_.requestsASecondBefore =
      static_cast<double>(scenario_.devices) / seconds(scenario_.every);
  const bool wasCut = scenario_.trouble == Trouble::network || scenario_.trouble == Trouble::oneKey;
  std::uniform_real_distribution<double> spread(0, std::max(1e-6, seconds(scenario_.spread)));
  for (std::uint32_t index = 0; index < scenario_.devices; ++index) {
    Device& device = devices_[index];
    device.nextAtReturn = device.next;
    figures_.waitedAtReturn += device.sender.notStored();
    if (wasCut && isTroubled(index) && followsNetwork(index)) {
      at(now_ + instant(spread(random_)), Kind::network, index);
    }
  }
  waitingSinceReturn_ = figures_.waitedAtReturn;
}

}  // namespace skelda::fleet
