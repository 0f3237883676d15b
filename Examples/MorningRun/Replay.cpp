#include "Examples/MorningRun/Replay.h"

#include <thread>
#include <vector>

#include "Skelda_Watch/SkeldaWatch.h"

namespace {

Replay::Options completed(Replay::Options options, std::size_t recorded) {
  if (options.events == 0) options.events = recorded;
  if (options.threads == 0) options.threads = 1;
  return options;
}

}  // namespace

Replay::Replay(const Recording& recording, Options options)
    : recording_(recording), options_(completed(options, recording.events.size())) {}

Replay::Clock::duration Replay::due(std::uint64_t index) const {
  using Seconds = std::chrono::duration<double>;
  Seconds at{0};
  if (options_.rate > 0) {
    at = Seconds(static_cast<double>(index) / options_.rate);
  } else if (options_.speed > 0) {
    const auto pass = static_cast<double>(index / recording_.events.size());
    const Seconds whole = recording_.events.back().at;
    at = (pass * whole + eventAt(index).at) / options_.speed;
  }
  return std::chrono::duration_cast<Clock::duration>(at);
}

const Recording::Event& Replay::eventAt(std::uint64_t index) const {
  return recording_.events[static_cast<std::size_t>(index % recording_.events.size())];
}

void Replay::work() {
  for (auto index = next_.fetch_add(1); index < options_.events; index = next_.fetch_add(1)) {
    std::this_thread::sleep_until(began_ + due(index));
    const auto& event = eventAt(index);
    const bool accepted = SkeldaWatch::logWatchEvent(event.name, event.parameters) == 1;
    (accepted ? accepted_ : refused_).fetch_add(1);
  }
}

Replay::Counts Replay::run() {
  began_ = Clock::now();
  {
    std::vector<std::jthread> threads;
    for (unsigned i = 1; i < options_.threads; ++i) threads.emplace_back([this] { work(); });
    work();
  }
  return {accepted_, refused_, Clock::now() - began_};
}
