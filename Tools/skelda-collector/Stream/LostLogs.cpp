#include "Tools/skelda-collector/Stream/LostLogs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iterator>

#include "Tools/Shared/FleetStream.h"
#include "Tools/Shared/StreamAccess.h"
#include "Tools/skelda-collector/Stream/LogMessage.h"

using skelda::platform::MutexLock;
using namespace std::chrono_literals;

namespace {

constexpr auto kCalm = 60s;          // between comparisons
constexpr auto kAfterTrouble = 3s;   // the same, while a trouble is recent
constexpr int kRest = 3;             // as long as a comparison took: the servers have other work
constexpr auto kTroubleLasts = 30s;  // and what it left behind may show
constexpr auto kClocks = 120s;       // by which those of servers and collectors may differ
constexpr auto kOverlap = 10s;       // of comparisons without a trouble
constexpr std::size_t kDigestLength = 64;
constexpr std::size_t kAtOnce = 256;  // of the logs that are published again

}  // namespace

LostLogs::LostLogs(SpareCopies::Options options, natsConnection* connection, jsCtx* stream,
                   IsReady isReady, Publish publish)
    : options_(std::move(options)),
      copies_(options_),
      connection_(connection),
      stream_(stream),
      isReady_(std::move(isReady)),
      publish_(std::move(publish)) {
  trouble();  // what the process before this one saw of it, nobody knows
  thread_ = std::thread([this] { run(); });
}

LostLogs::~LostLogs() {
  stop();
}

void LostLogs::stop() {
  {
    const MutexLock lock(mutex_);
    isStopping_ = true;
  }
  changed_.notifyAll();
  if (thread_.joinable()) thread_.join();
}

void LostLogs::add(const std::string& id, std::string_view head, std::string_view body) {
  copies_.add(id, head, body, std::chrono::system_clock::now());
}

void LostLogs::trouble() {
  const MutexLock lock(mutex_);
  troubledUntil_ = Clock::now() + kTroubleLasts;
  changed_.notifyAll();
}

void LostLogs::run() {
  auto began = Clock::now(), ended = began;
  MutexLock lock(mutex_);
  while (!isStopping_) {
    const bool isTroubled = began < troubledUntil_;
    const auto rest = isTroubled ? Clock::duration(kAfterTrouble) : kCalm;
    const auto next = ended + std::max(rest, kRest * (ended - began));
    const auto now = Clock::now();
    if (now < next || !isReady_()) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now);
      changed_.waitFor(lock, std::clamp<std::chrono::milliseconds>(left, 200ms, kCalm));
      continue;
    }
    began = now;
    lock.unlock();
    try {
      compare(isTroubled);
    } catch (const std::exception&) {
      // The stream went away meanwhile: it is looked for again.
    }
    ended = Clock::now();
    lock.lock();
  }
}

LostLogs::Views LostLogs::read(SpareCopies::Time since, bool ofAll) const {
  Views views;
  skelda::tools::readServers(connection_, stream_, since, ofAll, [&views](bool leads) {
    ServerView& view = leads ? views.leader : views.others.emplace_back();
    view = {};
    return [&view](std::string_view id, std::uint64_t place) {
      view.add(std::string(id.substr(0, kDigestLength)), place);
      return true;
    };
  });
  return views;
}

void LostLogs::compare(bool isTroubled) {
  const auto now = std::chrono::system_clock::now();
  auto copies = copies_.all();
  const auto from = isTroubled ? now - options_.longest : lastBegan_ - kOverlap;
  std::erase_if(copies, [&](const auto& copy) { return copy.at < from; });
  const Views views = copies.empty() ? Views{} : read(copies.front().at - kClocks, isTroubled);
  lastBegan_ = now;
  std::uint64_t first = views.leader.last;  // what is before the first copy was not read from all
  for (const auto& copy : copies) {
    const auto at = views.leader.places.find(copy.id);
    if (at != views.leader.places.end()) first = std::min(first, at->second);
  }
  const auto lost = findLost(views.leader, copies), disputed = findDisputed(views, first);
  if (!lost.empty() || !disputed.empty()) {
    std::printf(
        "stream: %zu acknowledged logs are no longer there, and %zu not on all servers; they are "
        "published again\n",
        lost.size(), disputed.size());
    std::fflush(stdout);
    lost_ += lost.size();
    publishAgain(lost, now);
    publishAgain(disputed, now);
  }
  giveUp(views.leader.repeated);
  for (const ServerView& other : views.others) giveUp(views.leader.leftIn(other, first));
  // It is looked whether they stay, and whether those that differ still do.
  if (!lost.empty() || !disputed_.empty() || !views.leader.repeated.empty()) trouble();
  ++comparisons_;
}

std::vector<LostLogs::Again> LostLogs::findLost(const ServerView& leader,
                                                const Copies& copies) const {
  std::vector<Again> lost;
  for (const auto& copy : copies) {
    if (!leader.places.contains(copy.id)) lost.push_back({copy.id, [copy] { return copy.read(); }});
  }
  return lost;
}

/// The logs that are to have another place. One comparison alone proves nothing: the servers were
/// not read at the same time.
std::vector<LostLogs::Again> LostLogs::findDisputed(const Views& views, std::uint64_t first) {
  if (views.others.empty()) return {};  // they were not read
  Ids disputed;
  std::size_t astray = 0;
  for (const ServerView& other : views.others) {
    const auto elsewhere = views.leader.elsewhereIn(other, first);
    // What had a new place and is elsewhere again: that server has lost its count of places.
    if (elsewhere.size() > ServerView::kMostElsewhere ||
        std::ranges::any_of(elsewhere, [&](const auto& id) { return moved_.contains(id); })) {
      ++astray;
    } else {
      disputed.insert(elsewhere.begin(), elsewhere.end());
    }
  }
  if (disputed.empty() && astray == 0) moved_.clear();
  if (astray != astray_.exchange(astray)) {
    std::printf("stream: servers that have many logs at other places than the leader: %zu\n",
                astray);
    std::fflush(stdout);
  }
  std::vector<Again> found;
  for (const auto& id : disputed) {
    if (!disputed_.contains(id)) continue;
    found.push_back(
        {id, [this, id, place = views.leader.places.at(id)] { return recordAt(place, id); }});
    moved_.insert(id);
  }
  disputed_ = std::move(disputed);
  return found;
}

/// Of what the leader gives out there, if it is that log; else empty.
std::string LostLogs::recordAt(std::uint64_t place, const std::string& id) const {
  natsMsg* got = nullptr;
  if (js_GetMsg(&got, stream_, skelda::tools::fleet::kStream, place, nullptr, nullptr) != NATS_OK)
    return {};
  const skelda::tools::NatsMessage message(got);
  const char* its = nullptr;
  if (natsMsgHeader_Get(got, skelda::tools::fleet::kIdHeader, &its) != NATS_OK ||
      std::string_view(its).substr(0, kDigestLength) != id) {
    return {};
  }
  return headOfRecord(got) += bodyOf(got);
}

/// Where a log is now, it stays, and was published later than what is given up. With a server
/// astray nothing is: that place is another log's there.
void LostLogs::giveUp(const std::vector<std::uint64_t>& places) {
  for (const std::uint64_t place : places) {
    if (astray_ > 0) return;
    if (js_DeleteMsg(stream_, skelda::tools::fleet::kStream, place, nullptr, nullptr) == NATS_OK)
      ++disputes_;
  }
}

/// With an id of this minute: another collector that finds the same publishes it with the same one,
/// and the servers keep one of the two.
void LostLogs::publishAgain(const std::vector<Again>& logs, SpareCopies::Time now) {
  const auto minute = std::chrono::floor<std::chrono::minutes>(now).time_since_epoch().count();
  struct Round {
    skelda::platform::Mutex mutex;
    skelda::platform::Condition changed;
    std::size_t left GUARDED_BY(mutex) = 0;
  };
  for (std::size_t first = 0; first < logs.size() && isReady_(); first += kAtOnce) {
    const auto round = std::make_shared<Round>();
    const std::size_t count = std::min(kAtOnce, logs.size() - first);
    {
      const MutexLock lock(round->mutex);
      round->left = count;
    }
    for (std::size_t i = first; i < first + count; ++i) {
      const std::string record = logs[i].read();
      if (record.empty()) {
        std::printf("stream: log %s cannot be read\n", logs[i].id.c_str());
        std::fflush(stdout);
      }
      publish_(record, fmt::format("{}.{}", logs[i].id, minute),
               [this, round](LogSink::Outcome outcome, const auto&) {
                 const MutexLock lock(round->mutex);
                 again_ += outcome == LogSink::Outcome::kept ? 1 : 0;
                 if (--round->left == 0) round->changed.notifyAll();
               });
    }
    MutexLock lock(round->mutex);
    const auto until = Clock::now() + 10s;  // what has no answer by then is lost at the next look
    while (round->left > 0 && Clock::now() < until) round->changed.waitFor(lock, 200ms);
  }
}

std::string LostLogs::figures() const {
  const auto copies = copies_.figures();
  std::string text;
  const auto add = [&text](const char* type, const char* name, std::uint64_t value) {
    text += fmt::format("# TYPE skelda_collector_{0} {1}\nskelda_collector_{0} {2}\n", name, type,
                        value);
  };
  add("gauge", "copies", copies.copies);
  add("gauge", "copies_bytes", copies.bytes);
  add("counter", "copies_dropped_early_total", copies.early);
  add("counter", "copies_failed_total", copies.failed);
  add("counter", "stream_comparisons_total", comparisons_);
  add("counter", "stream_lost_logs_total", lost_);
  add("counter", "stream_disputed_logs_total", disputes_);
  add("counter", "stream_published_again_total", again_);
  add("gauge", "stream_servers_astray", astray_);
  return text;
}
