#include "Analytics/Streaming/Core/SkeldaWatchStreamSessionRule.h"

#include <utility>

#include "Analytics/Streaming/Core/SkeldaMessageKinds.h"
#include "Analytics/Streaming/Core/SkeldaSessionLimit.h"
#include "Analytics/Streaming/Core/StreamComponent/ISkeldaSessionDevicePropertiesSource.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesData.h"
#include "Analytics/Streaming/Data Providers/SkeldaSessionDevicePropertiesDataProvider.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionDeviceProperties.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionId.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaHostSettings.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Base/Counted.h"

namespace {

using FrameType = SkeldaStreamFrameTypeUtil;
using Flush = SkeldaStreamFlush;

constexpr std::string_view kRefreshFlushStatus =
    "-[SkeldaWatchStreamSessionRule "
    "refreshFlushStatusForMessage:prependingMessages:appendingMessages:]";
constexpr std::string_view kFlushResponse =
    "-[SkeldaWatchStreamSessionRule flushResponseForMessage:]";
constexpr std::string_view kSaveArchive =
    "-[SkeldaWatchStreamSessionRule saveNewSessionIdArchiveFile:]";

/// The uptime that belongs to the event's own time, in milliseconds.
std::int64_t elapsedTimeOf(const SkeldaStreamEvent& event) {
  return event.relativeTimeStamp() - event.epochTimeStamp() +
         SkeldaDateUtil::timeIntervalSince1970InMilliseconds(
             event.timestamp().value_or(platform::Date()));
}

std::shared_ptr<SkeldaStreamSessionId> sessionStartingWith(const SkeldaStreamEvent& event) {
  return SkeldaStreamSessionId::sessionIdWithStartupTime(event.timestamp(), elapsedTimeOf(event),
                                                         0);
}

ISkeldaStreamMessage::Ref endOfSessionProperties(
    const SkeldaSessionDevicePropertiesDataProvider::DataRef& startOfSession) {
  if (!startOfSession) return nullptr;
  auto message =
      SkeldaStreamSessionDeviceProperties::dataWithSessionDevicePropertiesData(*startOfSession);
  message->updateWithData(*SkeldaSessionDevicePropertiesData::currentSnapshot(false));
  return message;
}

void addUnlessNull(ISkeldaStreamFlushRule::Messages& messages, ISkeldaStreamMessage::Ref message) {
  if (message) messages.push_back(std::move(message));
}

}  // namespace

std::shared_ptr<SkeldaWatchStreamSessionRule>
SkeldaWatchStreamSessionRule::sessionRuleWithFlushTriggerMap(TriggerMap triggerMap,
                                                             FrameTypes mandatoryStickySet,
                                                             std::int32_t eventThreshold,
                                                             std::int32_t durationThreshold,
                                                             ModuleLookup lookup) {
  return platform::counted(
      new SkeldaWatchStreamSessionRule(std::move(triggerMap), std::move(mandatoryStickySet),
                                       eventThreshold, durationThreshold, std::move(lookup)));
}

SkeldaWatchStreamSessionRule::SkeldaWatchStreamSessionRule(TriggerMap triggerMap,
                                                           FrameTypes mandatoryStickySet,
                                                           std::int32_t eventThreshold,
                                                           std::int32_t durationThreshold,
                                                           ModuleLookup lookup)
    : triggerMap_(std::move(triggerMap)),
      mandatoryStickySet_(std::move(mandatoryStickySet)),
      maxWatchEventThreshold_(eventThreshold),
      maxWatchDurationThreshold_(durationThreshold),
      lookup_(std::move(lookup)) {}

SkeldaStreamFlushResponse SkeldaWatchStreamSessionRule::refreshFlushStatusForMessage(
    const ISkeldaStreamMessage::Ref& message, Messages& prependingMessages,
    Messages& appendingMessages) {
  if (const auto* event = skelda::eventOf(message)) {
    stepSessionForEvent(*event, prependingMessages);
  }
  if (mandatoryStickySet_.contains(skelda::frameTypeOf(message))) {
    stickyMessagesSeen_.insert(message->frameType());
    SKELDA_LOG(0, "{}: MandatoryMessagesSeen count - {}, mandatory set count - {}",
               kRefreshFlushStatus, stickyMessagesSeen_.size(), mandatoryStickySet_.size());
  }
  const auto response = flushResponseForMessage(message);
  if (response.flushStatus == Flush::kSessionFinalized) {
    if (const auto provider = moduleNamed<SkeldaSessionDevicePropertiesDataProvider>(
            SkeldaSessionDevicePropertiesDataProvider::kClassName)) {
      provider->sendSessionDevicePropertiesForStart(true);
    }
    resetSessionParams();
  }
  if (response.flushStatus == Flush::kStickySetComplete ||
      response.flushStatus == Flush::kCCPADelete) {
    if (currentSessionId_) appendingMessages.push_back(currentSessionId_->copy());
  }
  return response;
}

void SkeldaWatchStreamSessionRule::stepSessionForEvent(const SkeldaStreamEvent& event,
                                                       Messages& prependingMessages) {
  if (totalNumOfLoggedEvent_ == 0) {
    openSession(event, prependingMessages);
    return;
  }
  if (!oldSessionIdSent_) return;

  std::int64_t elapsed = 0;
  if (currentSessionId_) {
    const auto startupTime = currentSessionId_->startupTime().value_or(platform::Date());
    elapsed = SkeldaDateUtil::timeIntervalSinceDateInMilliseconds(
        event.timestamp().value_or(startupTime), startupTime);
  }
  const std::int32_t limit = skelda::sessionLimitInMilliseconds(maxWatchDurationThreshold_);
  const bool inTime = limit >= elapsed;
  const bool lastThatFits = totalNumOfLoggedEvent_ >= std::int64_t{maxWatchEventThreshold_} - 1;

  if (inTime && lastThatFits) {
    endSessionAt(elapsedTimeOf(event), prependingMessages);
    noteSessionEnd();
    saveNewSessionIdArchiveFile(event);
  } else if (!inTime) {
    // Closed at exactly its longest length, not at the event that found it over.
    const std::int64_t start = currentSessionId_ ? currentSessionId_->elapsedStartTime() : 0;
    endSessionAt(start + limit, prependingMessages);
    noteSessionEnd();
    if (!oldSessionIdSent_) return;  // The flush response finalizes it, once the set is complete.
    prependingMessages.push_back(Flush::streamFlushWithStatus(Flush::kSessionFinalized));
    resetSessionParams();
    openSession(event, prependingMessages);
    addUnlessNull(prependingMessages, createSessionDeviceProperties(true));
  }
}

void SkeldaWatchStreamSessionRule::openSession(const SkeldaStreamEvent& event,
                                               Messages& prependingMessages) {
  currentSessionId_ = sessionStartingWith(event);
  prependingMessages.push_back(currentSessionId_->copy());
  stickyMessagesSeen_.insert(FrameType::kSessionId);
}

void SkeldaWatchStreamSessionRule::endSessionAt(std::int64_t elapsedEndTime,
                                                Messages& prependingMessages) {
  if (currentSessionId_) {
    currentSessionId_->setElapsedEndTime(elapsedEndTime);
    prependingMessages.push_back(currentSessionId_->copy());
  }
  addUnlessNull(prependingMessages, createSessionDeviceProperties(false));
}

void SkeldaWatchStreamSessionRule::noteSessionEnd() {
  oldSessionIdSent_ = isMandatoryStickySetComplete();
  if (oldSessionIdSent_) return;
  if (!stickyMessagesSeen_.contains(FrameType::kReportedIdentifers)) {
    SKELDA_NOTICE_ONCE(
        "Skelda: a session has ended, but nothing is committed and uploaded before the paired "
        "phone has given its identifiers (on a machine without a phone skelda-phone gives them). "
        "What is logged stays on disk");
  } else {
    SKELDA_NOTICE_ONCE(
        "Skelda: a session has ended, but nothing is committed and uploaded yet: {} of {} records "
        "that each log must hold are still missing",
        mandatoryStickySet_.size() - stickyMessagesSeen_.size(), mandatoryStickySet_.size());
  }
}

SkeldaStreamFlushResponse SkeldaWatchStreamSessionRule::flushResponseForMessage(
    const ISkeldaStreamMessage::Ref& message) {
  if (!SkeldaUtil::assertNotNil(message, kFlushResponse)) return {};
  SKELDA_LOG(0, "{}: message = {}", kFlushResponse, skelda::descriptionOf(message));

  const std::int32_t frameType = message->frameType();
  const bool isEvent = frameType == FrameType::kEvent;
  const bool complete = isMandatoryStickySetComplete();
  if (triggerMap_.contains(frameType) && !complete) {
    SKELDA_LOG(0, "{}: !! Not seen all stickies, dropping replay trigger - {} !!", kFlushResponse,
               message->className());
    return {};
  }
  if (isEvent) {
    // Unsigned, because a session that is never flushed counts on for ever.
    totalNumOfLoggedEvent_ =
        static_cast<std::int32_t>(static_cast<std::uint32_t>(totalNumOfLoggedEvent_) + 1U);
  }
  if (!oldSessionIdSent_ && complete) return {Flush::kSessionFinalized, false};
  if (!stickySetCompleteSentFlag_ && complete) {
    stickySetCompleteSentFlag_ = true;
    return {Flush::kStickySetComplete, isEvent};
  }
  if (totalNumOfLoggedEvent_ < maxWatchEventThreshold_ || !complete) {
    if (frameType == FrameType::kCCPADelete) return {Flush::kCCPADelete, false};
    return {triggeredStatus(frameType), false};
  }
  return {Flush::kSessionFinalized, false};
}

std::int32_t SkeldaWatchStreamSessionRule::triggeredStatus(std::int32_t frameType) const {
  const auto entry = triggerMap_.find(frameType);
  if (entry == triggerMap_.end() || !entry->second.isNumber()) return 0;
  return static_cast<std::int32_t>(entry->second.integerValue());
}

bool SkeldaWatchStreamSessionRule::isMandatoryStickySetComplete() const noexcept {
  // Counts only: what is seen is taken from the mandatory set, but for the session id that this
  // rule adds by itself.
  return stickyMessagesSeen_.size() == mandatoryStickySet_.size();
}

void SkeldaWatchStreamSessionRule::resetSessionParams() {
  totalNumOfLoggedEvent_ = 0;
  stickySetCompleteSentFlag_ = false;
  // All else was seen for good: the next session is complete as soon as it has an id.
  stickyMessagesSeen_.erase(FrameType::kSessionId);
  currentSessionId_ = nullptr;
  oldSessionIdSent_ = true;
}

ISkeldaStreamMessage::Ref SkeldaWatchStreamSessionRule::createSessionDeviceProperties(bool start) {
  const auto provider = moduleNamed<SkeldaSessionDevicePropertiesDataProvider>(
      SkeldaSessionDevicePropertiesDataProvider::kClassName);
  if (!start) return endOfSessionProperties(provider ? provider->devicePropertiesData() : nullptr);

  const auto snapshot = SkeldaSessionDevicePropertiesData::currentSnapshot(true);
  if (provider) provider->setDevicePropertiesData(snapshot);
  if (const auto source = moduleNamed<ISkeldaSessionDevicePropertiesSource>(
          ISkeldaSessionDevicePropertiesSource::kProtocolName)) {
    source->setSessionDevicePropertiesData(snapshot);
  }
  return SkeldaStreamSessionDeviceProperties::dataWithSessionDevicePropertiesData(*snapshot);
}

void SkeldaWatchStreamSessionRule::saveNewSessionIdArchiveFile(const SkeldaStreamEvent& event) {
  const std::string path = currentWatchSessionIdFilePath();
  SKELDA_LOG(0, "{}, path: {}", kSaveArchive, path);
  SkeldaUtil::archiveObject(sessionStartingWith(event)->archive(), path);
}

std::string SkeldaWatchStreamSessionRule::currentWatchSessionIdFilePath() {
  return SkeldaAgentFiles::currentWatchSessionId(SkeldaHostSettings::apiKey());
}

template <class Module>
std::shared_ptr<Module> SkeldaWatchStreamSessionRule::moduleNamed(std::string_view key) const {
  if (!lookup_) return nullptr;
  // The message that is being worked on matters more than the module.
  return skelda::guardedResult(std::shared_ptr<Module>(),
                               [&] { return std::dynamic_pointer_cast<Module>(lookup_(key)); });
}
