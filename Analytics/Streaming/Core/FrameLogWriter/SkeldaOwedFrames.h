#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <vector>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessage.h"

/// The messages that could not be written: they go to the log, in their order, before anything that
/// comes later. What a host's call accepted, and what a log begins and ends with, is owed for as
/// long as it takes; all else is given up after eight tries, or where thousands have gathered.
/// Called from its owner's queue.
class SkeldaOwedFrames {
 public:
  using Message = ISkeldaStreamMessage::Ref;
  using Messages = std::vector<Message>;

  /// `frameTypesKept` are those that a log begins and ends with: one of each is owed for good.
  explicit SkeldaOwedFrames(std::vector<std::int32_t> frameTypesKept);

  bool isEmpty() const noexcept { return messages_.empty(); }
  void addBeforeOthers(const Message& message) { messages_.push_front(message); }
  /// Both answer what is given up.
  [[nodiscard]] Messages add(const Message& message);
  [[nodiscard]] Messages wasTriedAgain();
  /// Gives each to `write`, which answers whether it is done with, until it answers false.
  void pay(const std::function<bool(const Message&)>& write);

 private:
  Messages giveUp();

  const std::vector<std::int32_t> frameTypesKept_;
  std::list<Message> messages_;
  int failedTries_ = 0;
};
