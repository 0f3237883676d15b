#include "Analytics/Streaming/Core/SkeldaWatchStreamEventDropRule.h"

#include <algorithm>

#include "Analytics/Streaming/Core/SkeldaMessageKinds.h"
#include "Analytics/Streaming/Core/SkeldaSessionLimit.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEventSummary.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Base/Counted.h"

namespace {

void insert(std::uint32_t id, SkeldaWatchStreamEventDropRule::EventIds& ids) {
  const auto at = std::ranges::lower_bound(ids, id);
  if (at == ids.end() || *at != id) ids.insert(at, id);
}

}  // namespace

std::shared_ptr<SkeldaWatchStreamEventDropRule>
SkeldaWatchStreamEventDropRule::eventDropRuleWithMaxEventThreshold(std::int32_t maxEventThreshold,
                                                                   std::int32_t maxDuration) {
  return platform::counted(new SkeldaWatchStreamEventDropRule(maxEventThreshold, maxDuration));
}

SkeldaWatchStreamEventDropRule::SkeldaWatchStreamEventDropRule(std::int32_t maxEventThreshold,
                                                               std::int32_t maxDuration)
    : maxEventThreshold_(maxEventThreshold), maxSessionDuration_(maxDuration) {}

std::vector<ISkeldaStreamMessage::Ref> SkeldaWatchStreamEventDropRule::prependMessagesBefore(
    const ISkeldaStreamMessage::Ref& message) {
  if (skelda::flushStatusOf(message) != SkeldaStreamFlush::kSessionFinalized) return {};
  return {
      SkeldaStreamEventSummary::streamWithEventCount(getEventCount(), droppedEventsSet_.empty())};
}

bool SkeldaWatchStreamEventDropRule::shouldDropMessage(const ISkeldaStreamMessage::Ref& message) {
  const SkeldaStreamEvent* event = skelda::eventOf(message);
  if (event == nullptr) return false;
  // Before any test, so that even an event that is dropped can move the session's start back.
  initialTimeStamp_ = std::min(initialTimeStamp_, event->timestamp().value_or(initialTimeStamp_));

  const bool repeated = std::ranges::binary_search(sentEventsSet_, event->eventId());
  // Dropped events count as well: once the cap is reached, all that follow are dropped.
  const bool full = static_cast<std::int64_t>(getEventCount()) >= maxEventThreshold_;
  if (repeated || full || !doesNotExceedSessionMaxDuration(*event)) {
    dropReason_ = repeated ? SkeldaIntakeOutcome::repeated
                  : full   ? SkeldaIntakeOutcome::sessionCap
                           : SkeldaIntakeOutcome::sessionDuration;
    if (!repeated) {
      SKELDA_NOTICE_ONCE(
          "Skelda: events are dropped from here on until the session ends: it has had its {} "
          "events "
          "or {} minutes, and ends once each record that a log must hold is there",
          maxEventThreshold_, maxSessionDuration_);
    }
    insert(event->eventId(), droppedEventsSet_);
    return true;
  }
  if (event->eventName()) eventsSet_.insert(*event->eventName());
  insert(event->eventId(), sentEventsSet_);
  return false;
}

void SkeldaWatchStreamEventDropRule::reset() {
  if (!droppedEventsSet_.empty()) {
    SKELDA_NOTICE("Skelda: {} events dropped by the session rule", droppedEventsSet_.size());
  }
  sentEventsSet_.clear();
  droppedEventsSet_.clear();
  eventsSet_.clear();
  initialTimeStamp_ = platform::Date::distantFuture();
}

std::uint32_t SkeldaWatchStreamEventDropRule::getEventCount() const noexcept {
  return static_cast<std::uint32_t>(sentEventsSet_.size() + droppedEventsSet_.size());
}

bool SkeldaWatchStreamEventDropRule::doesNotExceedSessionMaxDuration(
    const SkeldaStreamEvent& event) const {
  const std::int64_t elapsed = SkeldaDateUtil::timeIntervalSinceDateInMilliseconds(
      event.timestamp().value_or(initialTimeStamp_), initialTimeStamp_);
  return elapsed == 0 || skelda::sessionLimitInMilliseconds(maxSessionDuration_) >= elapsed;
}
