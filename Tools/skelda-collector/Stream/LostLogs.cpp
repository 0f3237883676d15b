#include "Tools/skelda-collector/Stream/LostLogs.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <stdexcept>

#include "Tools/Shared/StreamAccess.h"

using skelda::platform::MutexLock;
using namespace std::chrono_literals;

namespace {

constexpr auto kCalm = 60s;           // between comparisons
constexpr auto kAfterTrouble = 3s;    // the same, while a trouble is recent
constexpr auto kTroubleLasts = 30s;   // and what it left behind may show
constexpr auto kClocks = 120s;        // by which those of servers and collectors may differ
constexpr int kMostReadings = 16;     // until one is the leader's
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

void LostLogs::add(const std::string& id, std::string_view record) {
  copies_.add(id, record, std::chrono::system_clock::now());
}

void LostLogs::trouble() {
  const MutexLock lock(mutex_);
  troubledUntil_ = Clock::now() + kTroubleLasts;
  changed_.notifyAll();
}

void LostLogs::run() {
  auto last = Clock::now();
  MutexLock lock(mutex_);
  while (!isStopping_) {
    const bool isTroubled = last < troubledUntil_;
    const auto next = last + (isTroubled ? Clock::duration(kAfterTrouble) : kCalm);
    const auto now = Clock::now();
    if (now < next || !isReady_()) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - now);
      changed_.waitFor(lock, std::clamp<std::chrono::milliseconds>(left, 200ms, kCalm));
      continue;
    }
    last = now;
    lock.unlock();
    try {
      compare();
    } catch (const std::exception&) {
      // The stream went away meanwhile: it is looked for again.
    }
    lock.lock();
  }
}

/// The ids that the leader gives out, which is whom everybody else reads from and follows.
LostLogs::Ids LostLogs::leaderHas(SpareCopies::Time since) const {
  for (int reading = 0; reading < kMostReadings; ++reading) {
    const auto before = skelda::tools::streamInfo(stream_);
    if (!before) throw std::runtime_error("no stream");
    Ids ids;
    const std::string server = skelda::tools::readStream(
        connection_, stream_, since,
        [&](std::string_view id, std::uint64_t) { ids.emplace(id.substr(0, 64)); });
    const auto after = skelda::tools::streamInfo(stream_);
    if (after && skelda::tools::leaderOf(*before) == server &&
        skelda::tools::leaderOf(*after) == server)
      return ids;
  }
  throw std::runtime_error("the leader gives out nothing");
}

void LostLogs::compare() {
  const auto now = std::chrono::system_clock::now();
  auto copies = copies_.all();
  std::erase_if(copies, [&](const auto& copy) { return copy.at + options_.longest < now; });
  if (copies.empty()) return;
  const Ids there = leaderHas(copies.front().at - kClocks);
  ++comparisons_;
  std::erase_if(denied_, [&](const auto& entry) { return there.contains(entry.first); });
  std::erase_if(copies, [&](const auto& copy) { return there.contains(copy.id); });
  if (copies.empty()) return;
  std::printf("stream: %zu acknowledged logs are no longer there, and are published again\n",
              copies.size());
  std::fflush(stdout);
  publishAgain(copies);
  trouble();  // it is looked whether they stay
}

void LostLogs::publishAgain(const std::vector<SpareCopies::Copy>& lost) {
  struct Round {
    skelda::platform::Mutex mutex;
    skelda::platform::Condition changed;
    std::size_t left GUARDED_BY(mutex) = 0;
    std::vector<std::string> denied GUARDED_BY(mutex);
  };
  lost_ += lost.size();
  for (std::size_t first = 0; first < lost.size() && isReady_(); first += kAtOnce) {
    const auto round = std::make_shared<Round>();
    const std::size_t count = std::min(kAtOnce, lost.size() - first);
    {
      const MutexLock lock(round->mutex);
      round->left = count;
    }
    for (std::size_t i = first; i < first + count; ++i) {
      const std::string& id = lost[i].id;
      // A server that lost a log may still know its id: then it needs another one.
      const auto denied = denied_.find(id);
      const std::string name =
          denied == denied_.end() ? id : fmt::format("{}.{}", id, denied->second);
      publish_(lost[i].read(), name, [this, round, id](LogSink::Outcome outcome, const auto&) {
        const MutexLock lock(round->mutex);
        if (outcome == LogSink::Outcome::repeat) round->denied.push_back(id);
        again_ += outcome == LogSink::Outcome::kept ? 1 : 0;
        if (--round->left == 0) round->changed.notifyAll();
      });
    }
    MutexLock lock(round->mutex);
    const auto until = Clock::now() + 10s;  // what has no answer by then is lost at the next look
    while (round->left > 0 && Clock::now() < until) round->changed.waitFor(lock, 200ms);
    for (const auto& id : round->denied) ++denied_[id];
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
  add("counter", "stream_published_again_total", again_);
  return text;
}
