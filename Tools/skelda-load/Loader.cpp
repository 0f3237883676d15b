#include "Tools/skelda-load/Loader.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <set>
#include <string_view>
#include <utility>

namespace skelda::tools {

using namespace std::chrono_literals;

namespace {

constexpr auto kBetweenLooks = 2s;
constexpr auto kBetweenComparisons = 5s;  // while there is trouble
constexpr int kRest = 5;                  // as long as a comparison took
constexpr auto kTroubleLasts = 30s;       // what it left behind may show later
constexpr std::size_t kDigestsAtOnce = 1000;
constexpr std::size_t kLogsAtOnce = 64;     // of those that are missing
constexpr std::size_t kLogsTogether = 128;  // in a transaction
constexpr std::size_t kDigestLength = 64;

/// Whoever else publishes may use other ids: of these only the consumer tells.
bool isDigest(std::string_view id) {
  return id.size() >= kDigestLength &&
         id.substr(0, kDigestLength).find_first_not_of("0123456789abcdef") ==
             std::string_view::npos;
}

}  // namespace

Loader::Loader(LogStream& stream, Database& database, Pause pause, Tell tell, Seconds before)
    : stream_(stream),
      database_(database),
      pause_(std::move(pause)),
      tell_(std::move(tell)),
      before_(before) {}

bool Loader::pause(platform::RetryDelay::Duration length) {
  isEnding_ = isEnding_ || !pause_(length);
  return !isEnding_;
}

template <class Attempt>
bool Loader::retrying(Attempt attempt) {
  platform::RetryDelay delay(200ms, 10s);
  for (;;) {
    try {
      attempt();
      if (delay.isRunning()) tell_("goes on");
      return true;
    } catch (const LogStream::Unavailable& why) {
      if (!delay.isRunning()) tell_(fmt::format("stream: {}", why.what()));
      stream_.disconnect();
      noteTrouble();
    } catch (const Database::Unavailable& why) {
      if (!delay.isRunning()) tell_(fmt::format("database: {}", why.what()));
    }
    ++figures_.retries;
    if (!pause(delay.next())) return false;
  }
}

void Loader::run(bool untilEmpty) {
  // Before there is anything to write: who starts it sees at once whether it can be written.
  if (!retrying([&] { database_.connect(); })) return;
  bool waits = !untilEmpty;
  while (pause(0s)) {
    Messages messages;
    bool isEmpty = false;
    const bool taken = retrying([&] {
      if (!untilEmpty) lookForTrouble();
      messages = stream_.take(std::exchange(waits, !untilEmpty));
      // Of all there is, since nobody will look again.
      if (!untilEmpty || !messages.empty() || !stream_.place().isAtEnd) return;
      const auto [missed, coming] = compare({});
      isEmpty = missed == 0 && coming == 0;
    });
    if (!taken || isEmpty) return;
    if (messages.empty()) {
      waits = true;  // for what others have taken and not acknowledged
      continue;
    }
    std::size_t loaded = 0;
    if (!retrying([&] { load(messages, loaded); })) return;
    stream_.acknowledge(messages);
    figures_.behind = messages.back().behind();
  }
}

void Loader::noteTrouble() {
  lastTrouble_ = Clock::now();
  if (!std::exchange(isTroubled_, true)) troubledSince_ = Wall::now();
}

void Loader::lookForTrouble() {
  const auto now = Clock::now();
  if (now < nextLook_) return;
  nextLook_ = now + kBetweenLooks;
  if (!stream_.isAsItWas()) noteTrouble();
  if (!isTroubled_ || now < nextComparison_) return;
  const bool isLast = now > lastTrouble_ + kTroubleLasts;
  const auto difference = compare(troubledSince_ - before_);
  // Most of the time is for what comes.
  const auto ended = Clock::now();
  nextComparison_ = ended + std::max<Clock::duration>(kBetweenComparisons, kRest * (ended - now));
  if (difference.missed > 0 || shortAt_) return noteTrouble();
  if (isLast) isTroubled_ = false;
}

Loader::Difference Loader::compare(Wall::time_point since) {
  std::vector<std::string> digests;
  std::vector<std::uint64_t> places;
  std::set<std::uint64_t> missing;
  std::uint64_t unknown = 0;  // the last one of which only the consumer tells
  const auto ask = [&] {
    if (digests.empty()) return;
    const auto answers = database_.areMissing(digests);
    for (std::size_t i = 0; i < answers.size(); ++i) {
      if (answers[i]) missing.insert(places[i]);
    }
    digests.clear();
    places.clear();
  };
  Difference difference;
  // What the consumer is about to give out is not asked for: only at its end it may be short.
  const auto begun = stream_.place();
  stream_.each(since, [&](std::string_view id, std::uint64_t place) {
    if (!begun.isAtEnd && place > begun.done) {
      difference.coming = 1;
      return false;
    }
    if (!isDigest(id)) {
      unknown = std::max(unknown, place);
      return true;
    }
    digests.emplace_back(id.substr(0, kDigestLength));
    places.push_back(place);
    if (digests.size() == kDigestsAtOnce) ask();
    return pause(0s);
  });
  ask();
  const auto place = stream_.place();
  if (unknown > place.done) ++difference.coming;
  if (!isConsumerShort(place, std::max(unknown, missing.empty() ? 0 : *missing.rbegin()))) {
    difference.coming += std::erase_if(missing, [&](auto each) { return each > place.done; });
  }
  for (auto from = missing.cbegin(); from != missing.cend() && pause(0s);) {
    std::vector<std::uint64_t> some;
    while (from != missing.cend() && some.size() < kLogsAtOnce) some.push_back(*from++);
    const auto messages = stream_.at(some);
    const std::uint64_t before = figures_.logs;
    std::size_t loaded = 0;
    if (!messages.empty()) load(messages, loaded);
    difference.missed += figures_.logs - before;
    figures_.passedOver += figures_.logs - before;
  }
  return difference;
}

bool Loader::isConsumerShort(const LogStream::Place& place, std::uint64_t last) {
  const bool isEarly = place.isAtEnd && last > place.done;
  // What has just come may be on its way to the server that gives it out: not between comparisons.
  const bool isShort = isEarly && shortAt_ == place.done;
  shortAt_ = isEarly ? std::optional(place.done) : std::nullopt;
  if (!isShort) return false;
  tell_(fmt::format("stream: its consumer ends at {} of {}: another server is to lead it",
                    place.done, last));
  stream_.moveConsumer();
  return true;
}

void Loader::load(const Messages& messages, std::size_t& loaded) {
  const auto endOf = [&](std::size_t first) {
    return std::min(first + kLogsTogether, messages.size());
  };
  const auto read = [&](std::size_t first) {
    std::vector<LogRows> rows;
    for (std::size_t i = first; i < endOf(first); ++i)
      rows.push_back(LogRows::of(messages[i].log()));
    return rows;
  };
  auto next = std::async(std::launch::async, read, loaded);
  while (loaded < messages.size()) {
    std::vector<LogRows> rows = next.get();
    const std::size_t end = endOf(loaded);
    if (end < messages.size()) next = std::async(std::launch::async, read, end);
    load(Part(messages).subspan(loaded, rows.size()), rows);
    loaded = end;
  }
}

void Loader::load(Part messages, std::span<LogRows> rows) {
  Figures added;
  try {
    added.logs = database_.add(rows, [&](std::size_t index) {
      const LogRows& log = rows[index];
      added.events += log.events;
      if (log.fault.empty()) return;
      // Before the commit: afterwards nobody would know that it still has to be done.
      stream_.keepDamaged(messages[index], log.fault);
      ++added.damaged;
    });
  } catch (const Database::Refused& why) {
    if (rows.size() > 1) {
      const std::size_t half = rows.size() / 2;
      load(messages.first(half), rows.first(half));
      return load(messages.subspan(half), rows.subspan(half));
    }
    // What it refuses of a row with nothing but numbers lies elsewhere: that is tried again.
    if (rows[0].events == 0 && rows[0].frames == 0) throw Database::Unavailable(why.what());
    rows[0] = LogRows::refused(messages[0].log(), why.what());
    return load(messages, rows);
  }
  figures_.logs += added.logs;
  figures_.events += added.events;
  figures_.damaged += added.damaged;
  figures_.repeats += rows.size() - added.logs;
}

}  // namespace skelda::tools
