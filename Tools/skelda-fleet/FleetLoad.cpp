#include "Tools/skelda-fleet/FleetLoad.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

#include "Tools/Shared/Digest.h"

namespace skelda::fleet {
namespace {

constexpr std::chrono::milliseconds kLongestWait{100};
constexpr std::chrono::seconds kBetweenLooks{1};

[[noreturn]] void failLedger(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

FleetLoad::FleetLoad(const Options& options, LoadBodies& bodies)
    : options_(options), bodies_(bodies), requests_(options.requests), devices_(options.devices) {
  if (options_.ledger.empty()) return;
  ledger_ = std::fopen(options_.ledger.c_str(), "ae");
  if (ledger_ == nullptr) failLedger(options_.ledger);
  // Whoever follows it, or finds it after a kill, has each line that was written whole.
  if (std::setvbuf(ledger_, nullptr, _IOLBF, BUFSIZ) != 0) failLedger(options_.ledger);
}

FleetLoad::~FleetLoad() {
  if (ledger_ != nullptr) std::fclose(ledger_);
}

void FleetLoad::run(const std::function<bool()>& isToEnd) {
  const auto began = Clock::now();
  const auto lasts = [](double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
  };
  const auto ends = began + lasts(options_.seconds);
  for (std::uint32_t device = 0; device < options_.devices; ++device) {
    // With a rate, each in its turn; else all at once.
    const double after = options_.rate > 0 ? device / options_.rate : 0;
    turns_.push({began + lasts(after), device, false});
  }
  auto now = began;
  while (now < ends && !isToEnd()) {
    takeTurns(now);
    auto wait = kLongestWait;
    if (!turns_.empty()) {
      const auto until = std::chrono::ceil<std::chrono::milliseconds>(turns_.top().at - now);
      wait = std::clamp(until, std::chrono::milliseconds(0), wait);
    }
    requests_.run(wait);
    now = Clock::now();
  }
  took_ = std::chrono::duration<double>(now - began).count();
  takenInTime_ = taken_;
  isDraining_ = true;
  const auto drained = now + lasts(options_.drainSeconds);
  while (waiting() > 0 && now < drained && !isToEnd()) {
    takeTurns(now);
    sendWhatWaits(now);
    requests_.run(kLongestWait);
    now = Clock::now();
  }
  waitingAtEnd_ = waiting();
  flushLedger();
}

void FleetLoad::takeTurns(Clock::time_point now) {
  while (!turns_.empty() && turns_.top().at <= now) {
    const Turn turn = turns_.top();
    turns_.pop();
    if (turn.isFolder) {
      steps_.clear();
      devices_[turn.device].sender.tryFolderAgain(steps_);
      carryOut(turn.device);
    } else if (!isDraining_) {
      commit(turn.device);
      if (options_.rate <= 0) continue;
      const std::chrono::duration<double> interval(options_.devices / options_.rate);
      turns_.push(
          {turn.at + std::chrono::duration_cast<Clock::duration>(interval), turn.device, false});
    }
  }
}

/// No more logs come that would be a reason to try again: as if there were a network again.
void FleetLoad::sendWhatWaits(Clock::time_point now) {
  if (now < lookAgainAt_) return;
  lookAgainAt_ = now + kBetweenLooks;
  for (std::uint32_t device = 0; device < devices_.size(); ++device) {
    auto& sender = devices_[device].sender;
    if (sender.running() > 0 || sender.blocks() == 0) continue;
    steps_.clear();
    sender.networkReturned(steps_);
    carryOut(device);
  }
}

std::size_t FleetLoad::waiting() const {
  std::size_t count = 0;
  for (const auto& device : devices_) count += device.sender.blocks() + device.sender.inFolder();
  return count;
}

void FleetLoad::commit(std::uint32_t device) {
  steps_.clear();
  ++begun_;
  devices_[device].sender.commit(devices_[device].next++, steps_);
  carryOut(device);
}

void FleetLoad::carryOut(std::uint32_t device) {
  givenUp_ += steps_.overLimit.size() + steps_.folderFull.size();
  if (const auto delay = steps_.tryFolderAgainAfter) {
    turns_.push({Clock::now() + *delay, device, true});
  }
  for (const Log log : steps_.requests) send(device, log);
}

void FleetLoad::send(std::uint32_t device, Log log) {
  ++requestsBegun_;
  // One collector that is gone is no reason to be without any.
  const std::size_t url = (device + devices_[device].failures) % options_.urls.size();
  requests_.post(
      {options_.urls[url], options_.apiKeys[device % options_.apiKeys.size()],
       [this, device, log] { return bodies_.body(device, log).bytes; },
       [this, device, log](const HttpsRequests::Result& result, const std::string& body) {
         ended(device, log, result, body);
       }});
}

void FleetLoad::ended(std::uint32_t device, Log log, const HttpsRequests::Result& result,
                      const std::string& body) {
  const Ending ending = result.status / 100 == 2 ? Ending::taken
                        : result.status == 400   ? Ending::malformed
                                                 : Ending::failed;
  if (result.status != 0) {
    ++statuses_[result.status];
  } else {
    ++problems_[result.problem];
  }
  Device& of = devices_[device];
  malformed_ += ending == Ending::malformed ? 1 : 0;
  of.failures = ending == Ending::failed ? of.failures + 1 : 0;
  if (ending == Ending::taken) {
    of.pause.reset();
    ++taken_;
    bytes_ += body.size();
    latencies_.push_back(static_cast<std::uint32_t>(result.took.count()));
    writeLedger(fmt::format("{} {} {} {}\n", tools::digestOf(body), body.size(), device, log + 1));
  }
  steps_.clear();
  of.sender.ended(log, ending, steps_);
  carryOut(device);
  whatNext(device);
}

/// Where the next log follows the one before. A device whose logs are all refused goes on after a
/// pause: a log more is what makes the sender try again.
void FleetLoad::whatNext(std::uint32_t device) {
  if (options_.rate > 0 || isDraining_ || devices_[device].sender.running() > 0) return;
  auto at = Clock::now();
  if (devices_[device].sender.blocks() > 0) at += devices_[device].pause.next();
  turns_.push({at, device, false});
}

// -- What is told of it

void FleetLoad::writeLedger(const std::string& line) {
  if (ledger_ == nullptr) return;
  if (std::fputs(line.c_str(), ledger_) == EOF) failLedger(options_.ledger);
}

void FleetLoad::flushLedger() {
  if (ledger_ != nullptr && std::fflush(ledger_) != 0) failLedger(options_.ledger);
}

double FleetLoad::latency(double share) const {
  if (latencies_.empty()) return 0;
  const auto place = static_cast<std::size_t>(share * static_cast<double>(latencies_.size() - 1));
  const auto at = latencies_.begin() + static_cast<std::ptrdiff_t>(place);
  std::nth_element(latencies_.begin(), at, latencies_.end());
  return *at / 1000.0;
}

FleetLoad::Json FleetLoad::report() const {
  Json statuses = Json::object();
  for (const auto& [status, count] : statuses_) statuses[std::to_string(status)] = count;
  return {{"devices", options_.devices},
          {"seconds", took_},
          {"logs", begun_},
          {"requests", requestsBegun_},
          {"taken", taken_},
          {"takenASecond", took_ > 0 ? static_cast<double>(takenInTime_) / took_ : 0},
          {"bytes", bytes_},
          {"statuses", statuses},
          {"problems", problems_},
          {"latency", {{"half", latency(0.5)}, {"99 %", latency(0.99)}, {"longest", latency(1)}}},
          {"givenUp", givenUp_},
          {"malformed", malformed_},
          {"waiting", waitingAtEnd_}};
}

std::string FleetLoad::text() const {
  std::string text = fmt::format(
      "{} devices, {} collectors, {:.1f} s\n"
      "logs taken          {}, {:.1f} a second, {:.1f} KB each\n"
      "requests            {}\n",
      options_.devices, options_.urls.size(), took_, taken_,
      took_ > 0 ? static_cast<double>(takenInTime_) / took_ : 0,
      taken_ > 0 ? static_cast<double>(bytes_) / 1000 / static_cast<double>(taken_) : 0,
      requestsBegun_);
  for (const auto& [status, count] : statuses_) {
    text += fmt::format("  answered {}      {}\n", status, count);
  }
  for (const auto& [problem, count] : problems_) {
    text += fmt::format("  without an answer {} ({})\n", count, problem);
  }
  return text + fmt::format(
                    "milliseconds        half {:.1f}, 99 % {:.1f}, longest {:.1f}\n"
                    "over the limits     {}\n"
                    "refused for good    {}\n"
                    "still waiting       {}\n",
                    latency(0.5), latency(0.99), latency(1), givenUp_, malformed_, waitingAtEnd_);
}

}  // namespace skelda::fleet
