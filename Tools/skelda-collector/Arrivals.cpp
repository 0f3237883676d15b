#include "Tools/skelda-collector/Arrivals.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"

using skelda::platform::MutexLock;
using Json = Arrivals::Json;

namespace {

constexpr std::size_t kMostCards = 300;
constexpr std::size_t kMostMessages = 500;
constexpr std::size_t kMostWatches = 200;
constexpr std::size_t kMostRuns = 1000;
constexpr std::size_t kMostNames = 1000;
constexpr std::size_t kMostListed = 50;  // of what is shown as a list with its counts
constexpr std::uint64_t kHighestNumber = std::uint64_t{1} << 53;
constexpr std::int64_t kBucketSeconds = 10;
constexpr std::size_t kBuckets = 180;
// Of what earlier runs left, so much is read again at the start.
constexpr std::size_t kBytesReadAgain = 8u << 20;

enum { kLogs, kEvents, kBytes, kRepeats, kRefused };

std::int64_t nowInSeconds() {
  return std::chrono::duration_cast<std::chrono::seconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

template <class Key>
void add(std::map<Key, std::uint64_t>& counts, const Key& key, std::uint64_t more) {
  if (counts.size() < kMostNames || counts.contains(key)) counts[key] += more;
}

/// The largest first.
template <class Key>
Json listOf(const std::map<Key, std::uint64_t>& counts) {
  std::vector<std::pair<Key, std::uint64_t>> list(counts.begin(), counts.end());
  std::stable_sort(list.begin(), list.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  if (list.size() > kMostListed) list.resize(kMostListed);
  Json json = Json::array();
  for (const auto& [key, count] : list) json.push_back(Json::array({key, count}));
  return json;
}

std::string textOf(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string messageOf(std::uint64_t sequence, const char* kind, const Json& what) {
  return fmt::format("id: {}\nevent: {}\ndata: {}\n\n", sequence, kind, textOf(what));
}

}  // namespace

void Arrivals::Numbers::add(std::int64_t number) {
  auto after = runs_.upper_bound(number);
  auto before = after == runs_.begin() ? runs_.end() : std::prev(after);
  if (before != runs_.end() && number <= before->second) {
    ++again_;
    return;
  }
  std::int64_t first = number;
  std::int64_t last = number;
  if (before != runs_.end() && before->second + 1 == number) {
    first = before->first;
    runs_.erase(before);
  }
  if (after != runs_.end() && after->first - 1 == number) {
    last = after->second;
    runs_.erase(after);
  }
  runs_[first] = last;
  if (runs_.size() > kMostRuns) runs_.erase(runs_.begin());
}

Json Arrivals::Numbers::json() const {
  if (runs_.empty()) return nullptr;
  // The newest gaps are the ones that somebody may still do something about.
  Json missing = Json::array();
  std::uint64_t count = 0;
  for (auto run = runs_.rbegin(); std::next(run) != runs_.rend(); ++run) {
    const auto from = std::next(run)->second + 1;
    const auto to = run->first - 1;
    count += static_cast<std::uint64_t>(to - from) + 1;
    if (missing.size() < kMostListed) missing.push_back(Json::array({from, to}));
  }
  return {{"first", runs_.begin()->first},
          {"last", runs_.rbegin()->second},
          {"missing", count},
          {"gaps", std::move(missing)},
          {"again", again_}};
}

Arrivals::Arrivals(const LogStore& store) : store_(store) {
  const MutexLock lock(mutex_);
  for (std::size_t number = 1; const auto entry = store.entry(number); ++number)
    if (!entry->line.contains("repeat")) noteWatch(entry->line, nullptr);
  std::vector<LogStore::Entry> again;
  std::uint64_t bytes = 0;
  for (auto& entry : store.newestFirst(SIZE_MAX, kMostCards)) {
    bytes += LogStore::numberIn(entry.line, "bytes");
    if (bytes > kBytesReadAgain) break;
    again.push_back(std::move(entry));
  }
  for (const auto& entry : again) {
    const auto log = store.bytesOf(entry.line);
    const auto report = FrameLogReport::of(log.value_or(""));
    cards_.push_back(cardOf(entry, report));
    if (log && !entry.line.contains("repeat")) noteReport(report);
  }
}

Json Arrivals::cardOf(const LogStore::Entry& entry, const FrameLogReport& report) const {
  Json card{{"n", entry.number}};
  for (const char* key : {"time", "key", "bytes", "frames", "events", "counter", "installation",
                          "repeat", "sha256", "file"})
    if (entry.line.contains(key)) card[key] = entry.line[key];
  card["application"] = report.application;
  card["device"] = report.device;
  card["closed"] = report.closed;
  card["first"] = report.firstTime;
  card["last"] = report.lastTime;
  card["names"] = listOf(report.eventsByName);
  card["sessions"] = Json::array();
  for (const auto& [id, session] : report.spans)
    card["sessions"].push_back({{"id", id}, {"last", session.last}, {"ended", session.ended}});
  return card;
}

void Arrivals::noteWatch(const Json& line, const FrameLogReport* report) {
  const auto name = LogStore::textIn(line, "key") + " " + LogStore::textIn(line, "installation");
  if (watches_.size() >= kMostWatches && !watches_.contains(name)) return;
  Watch& watch = watches_[name];
  if (const auto counter = LogStore::numberIn(line, "counter"))
    watch.numbers.add(static_cast<std::int64_t>(std::min(counter, kHighestNumber)));
  ++watch.logs;
  watch.lastTime = LogStore::textIn(line, "time");
  if (report) noteReport(*report);
  if (report && !report->application.empty()) watch.application = report->application;
  if (report && !report->device.empty()) watch.device = report->device;
}

void Arrivals::noteReport(const FrameLogReport& report) {
  for (const auto& [name, count] : report.eventsByName) add(eventsByName_, name, count);
  for (const auto& [type, count] : report.framesByType) add(framesByType_, type, count);
}

void Arrivals::count(std::size_t which, std::uint64_t amount) {
  const auto at = nowInSeconds() / kBucketSeconds * kBucketSeconds;
  if (buckets_.empty() || buckets_.back().at != at) buckets_.push_back({.at = at, .counts = {}});
  buckets_.back().counts[which] += amount;
  if (buckets_.size() > kBuckets) buckets_.pop_front();
}

void Arrivals::took(const LogStore::Entry& entry, const FrameLogReport& report) {
  const auto card = cardOf(entry, report);
  const MutexLock lock(mutex_);
  if (entry.line.contains("repeat")) {
    count(kRepeats, 1);
  } else {
    count(kLogs, 1);
    count(kEvents, report.events);
    count(kBytes, LogStore::numberIn(entry.line, "bytes"));
    noteWatch(entry.line, &report);
  }
  cards_.push_front(card);
  if (cards_.size() > kMostCards) cards_.pop_back();
  tell("log", card);
}

void Arrivals::refused(int status, const std::string& why) {
  const MutexLock lock(mutex_);
  count(kRefused, 1);
  ++refused_[status];
  tell("refused", {{"status", status}, {"why", why}});
}

std::uint64_t Arrivals::sequence() const {
  const MutexLock lock(mutex_);
  return sequence_;
}

void Arrivals::faultsChanged(const Json& faults) {
  const MutexLock lock(mutex_);
  tell("faults", faults);
}

void Arrivals::tell(const char* kind, const Json& what) {
  messages_.push_back(messageOf(++sequence_, kind, what));
  if (messages_.size() > kMostMessages) messages_.pop_front();
  changed_.notifyAll();
}

Json Arrivals::account() const {
  const MutexLock lock(mutex_);
  const auto totals = store_.totals();
  Json types = Json::array();
  for (const auto& each : listOf(framesByType_))
    types.push_back(
        {each[0],
         std::string(SkeldaStreamFrameTypeUtil::classNameForFrameType(each[0].get<std::int32_t>())),
         each[1]});
  return {{"logs", totals.logs},         {"bytes", totals.bytes},
          {"events", totals.events},     {"repeats", totals.repeats},
          {"refused", listOf(refused_)}, {"names", listOf(eventsByName_)},
          {"types", std::move(types)},   {"watches", watches()}};
}

Json Arrivals::watches() const {
  Json list = Json::array();
  for (const auto& [name, watch] : watches_) {
    if (list.size() >= kMostListed) break;
    const auto space = name.find(' ');
    list.push_back({{"key", name.substr(0, space)},
                    {"installation", name.substr(space + 1)},
                    {"application", watch.application},
                    {"device", watch.device},
                    {"logs", watch.logs},
                    {"lastTime", watch.lastTime},
                    {"numbers", watch.numbers.json()}});
  }
  return list;
}

Json Arrivals::state() const {
  const MutexLock lock(mutex_);
  Json buckets = Json::array();
  for (const auto& bucket : buckets_)
    buckets.push_back({{"at", bucket.at}, {"counts", bucket.counts}});
  return {{"sequence", sequence_},
          {"now", nowInSeconds()},
          {"bucketSeconds", kBucketSeconds},
          {"buckets", std::move(buckets)},
          {"cards", Json(std::vector<Json>(cards_.begin(), cards_.end()))}};
}

std::string Arrivals::messagesAfter(std::uint64_t& sequence,
                                    std::chrono::steady_clock::time_point deadline) const {
  MutexLock lock(mutex_);
  while (sequence == sequence_ && !stopped_ && std::chrono::steady_clock::now() < deadline)
    changed_.waitUntil(lock, deadline);
  const auto first = sequence_ - messages_.size();  // the last one that is forgotten
  std::string text;
  if (sequence < first || sequence > sequence_) {
    text = messageOf(sequence_, "forgotten", Json::object());
  } else {
    for (auto at = static_cast<std::size_t>(sequence - first); at < messages_.size(); ++at)
      text += messages_[at];
  }
  sequence = sequence_;
  return text;
}

void Arrivals::stop() {
  const MutexLock lock(mutex_);
  stopped_ = true;
  changed_.notifyAll();
}

bool Arrivals::isStopped() const {
  const MutexLock lock(mutex_);
  return stopped_;
}
