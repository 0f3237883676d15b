#include "Tools/skelda-load/Loader.h"

#include <fmt/format.h>

#include <chrono>
#include <utility>

namespace skelda::tools {

using namespace std::chrono_literals;

Loader::Loader(LogStream& stream, Database& database, Pause pause, Tell tell)
    : stream_(stream), database_(database), pause_(std::move(pause)), tell_(std::move(tell)) {}

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
    } catch (const Database::Unavailable& why) {
      if (!delay.isRunning()) tell_(fmt::format("database: {}", why.what()));
    }
    ++figures_.retries;
    if (!pause_(delay.next())) return false;
  }
}

void Loader::run(bool untilEmpty) {
  // Before there is anything to write: who starts it sees at once whether it can be written.
  if (!retrying([&] { database_.connect(); })) return;
  while (pause_(0s)) {
    Messages messages;
    bool isEmpty = false;
    const bool taken = retrying([&] {
      messages = stream_.take();
      isEmpty = untilEmpty && messages.empty() && stream_.isEmpty();
    });
    if (!taken || isEmpty) return;
    if (messages.empty()) continue;
    if (!retrying([&] { load(messages); })) return;
    stream_.acknowledge(messages);
    figures_.behind = messages.back().behind();
  }
}

void Loader::load(const Messages& messages) {
  std::vector<LogRows> rows;
  rows.reserve(messages.size());
  for (const StreamedMessage& message : messages) rows.push_back(LogRows::of(message.log()));
  load(messages, rows, 0, rows.size());
}

void Loader::load(const Messages& messages, std::vector<LogRows>& rows, std::size_t first,
                  std::size_t count) {
  Figures added;
  try {
    added.logs = database_.add({rows.data() + first, count}, [&](std::size_t index) {
      const LogRows& log = rows[first + index];
      added.events += log.events;
      if (log.fault.empty()) return;
      // Before the commit: afterwards nobody would know that it still has to be done.
      stream_.keepDamaged(messages[first + index], log.fault);
      ++added.damaged;
    });
  } catch (const Database::Refused& why) {
    if (count > 1) {
      load(messages, rows, first, count / 2);
      return load(messages, rows, first + count / 2, count - count / 2);
    }
    // What it refuses of a row with nothing but numbers lies elsewhere: that is tried again.
    if (rows[first].events == 0 && rows[first].frames == 0) throw Database::Unavailable(why.what());
    rows[first] = LogRows::refused(messages[first].log(), why.what());
    return load(messages, rows, first, 1);
  }
  figures_.logs += added.logs;
  figures_.events += added.events;
  figures_.damaged += added.damaged;
  figures_.repeats += count - added.logs;
}

}  // namespace skelda::tools
