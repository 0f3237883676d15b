#pragma once

#include <cstdint>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Analytics/Streaming/Core/ISkeldaStreamDropRule.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Platform.h"

class SkeldaStreamEvent;

/// Caps the events of a watch session, by number and by time since the session's earliest event,
/// and drops events that repeat an id. At the end of a session it supplies the event summary, and
/// says in the log how many were dropped, if any.
/// No lock: used on one queue. Nothing of it outlives the process.
class SkeldaWatchStreamEventDropRule final : public ISkeldaStreamDropRule {
 public:
  /// In order, which is mostly that in which they come; its room outlives the session.
  using EventIds = std::vector<std::uint32_t>;

  /// `maxDuration` in minutes.
  static std::shared_ptr<SkeldaWatchStreamEventDropRule> eventDropRuleWithMaxEventThreshold(
      std::int32_t maxEventThreshold, std::int32_t maxDuration);

  std::vector<ISkeldaStreamMessage::Ref> prependMessagesBefore(
      const ISkeldaStreamMessage::Ref& message) override;
  bool shouldDropMessage(const ISkeldaStreamMessage::Ref& message) override;
  SkeldaIntakeOutcome dropReason() const noexcept override { return dropReason_; }
  void reset() override;

  /// Kept and dropped events of the session.
  std::uint32_t getEventCount() const noexcept;
  bool doesNotExceedSessionMaxDuration(const SkeldaStreamEvent& event) const;

  const std::set<std::string>& eventsSet() const noexcept { return eventsSet_; }
  const EventIds& sentEventsSet() const noexcept { return sentEventsSet_; }
  const EventIds& droppedEventsSet() const noexcept { return droppedEventsSet_; }
  std::int32_t maxEventThreshold() const noexcept { return maxEventThreshold_; }
  std::int32_t maxSessionDuration() const noexcept { return maxSessionDuration_; }
  platform::Date initialTimeStamp() const noexcept { return initialTimeStamp_; }

 private:
  SkeldaWatchStreamEventDropRule(std::int32_t maxEventThreshold, std::int32_t maxDuration);

  std::set<std::string> eventsSet_;  // Names let through: kept, never consulted.
  EventIds sentEventsSet_;
  EventIds droppedEventsSet_;
  const std::int32_t maxEventThreshold_;
  const std::int32_t maxSessionDuration_;
  platform::Date initialTimeStamp_ = platform::Date::distantFuture();
  SkeldaIntakeOutcome dropReason_ = SkeldaIntakeOutcome::sessionCap;
};
