#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaOwedFrames.h"

#include <algorithm>
#include <set>
#include <utility>

namespace {

/// With the writer's delays some ten seconds.
constexpr int kTries = 8;
constexpr std::size_t kMostMessages = 4096;

}  // namespace

SkeldaOwedFrames::SkeldaOwedFrames(std::vector<std::int32_t> frameTypesKept)
    : frameTypesKept_(std::move(frameTypesKept)) {}

SkeldaOwedFrames::Messages SkeldaOwedFrames::add(const Message& message) {
  messages_.push_back(message);
  return messages_.size() >= kMostMessages ? giveUp() : Messages();
}

SkeldaOwedFrames::Messages SkeldaOwedFrames::wasTriedAgain() {
  if (messages_.empty()) failedTries_ = 0;
  return !messages_.empty() && ++failedTries_ == kTries ? giveUp() : Messages();
}

void SkeldaOwedFrames::pay(const std::function<bool(const Message&)>& write) {
  while (!messages_.empty()) {
    // Not in the list meanwhile: a frame that ends its log may bring another before the others.
    const Message message = messages_.front();
    messages_.pop_front();
    if (write(message)) continue;
    messages_.push_front(message);
    return;
  }
}

SkeldaOwedFrames::Messages SkeldaOwedFrames::giveUp() {
  failedTries_ = 0;
  Messages givenUp;
  std::set<std::int32_t> kept;
  std::erase_if(messages_, [&](const Message& message) {
    const std::int32_t type = message->frameType();
    // What the intake journal holds was accepted, and its window bounds it.
    if (message->intakeTicket() != kSkeldaNoTicket) return false;
    const bool frames = std::ranges::find(frameTypesKept_, type) != frameTypesKept_.end();
    if (frames && kept.insert(type).second) return false;
    givenUp.push_back(message);
    return true;
  });
  return givenUp;
}
