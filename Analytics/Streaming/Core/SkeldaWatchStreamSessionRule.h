#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "Analytics/Streaming/Core/ISkeldaStreamFlushRule.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

class SkeldaStreamEvent;
class SkeldaStreamSessionId;

/// Opens and closes watch sessions: a session ends after a number of events or minutes, and is
/// flushed only once every mandatory sticky message has been seen.
/// No lock: used on the core policy's queue.
class SkeldaWatchStreamSessionRule final : public ISkeldaStreamFlushRule {
 public:
  using FrameTypes = std::set<std::int32_t>;
  /// Frame type to the flush status that such a message brings; only numbers count.
  using TriggerMap = std::map<std::int32_t, platform::Value>;
  /// Finds a module by its registry key, a class or protocol name; null for what is not there.
  /// Called on the core policy's queue; the rule asks for the device properties' provider and
  /// source. What it throws is reported and counts as null: no message is lost over it.
  using ModuleLookup = std::function<platform::ObjectRef(std::string_view key)>;

  /// `durationThreshold` in minutes. An empty `lookup` finds nothing.
  static std::shared_ptr<SkeldaWatchStreamSessionRule> sessionRuleWithFlushTriggerMap(
      TriggerMap triggerMap, FrameTypes mandatoryStickySet, std::int32_t eventThreshold,
      std::int32_t durationThreshold, ModuleLookup lookup);

  SkeldaStreamFlushResponse refreshFlushStatusForMessage(const ISkeldaStreamMessage::Ref& message,
                                                         Messages& prependingMessages,
                                                         Messages& appendingMessages) override;
  SkeldaStreamFlushResponse flushResponseForMessage(const ISkeldaStreamMessage::Ref& message);
  /// Compares the sizes of the two sets, not the sets.
  bool isMandatoryStickySetComplete() const noexcept;
  void resetSessionParams();
  /// The message for the start or the end of a session, from a fresh snapshot. A start is also
  /// kept by provider and source; the end is null where no start is kept.
  ISkeldaStreamMessage::Ref createSessionDeviceProperties(bool start);
  /// Puts on disk from which event the next session starts, for use after a crash.
  void saveNewSessionIdArchiveFile(const SkeldaStreamEvent& event);
  /// <agent folder>/.skeldaCurrentWatchSessionId<hash of the API key>_<agent version>.archive
  static std::string currentWatchSessionIdFilePath();

  bool stickySetCompleteSentFlag() const noexcept { return stickySetCompleteSentFlag_; }
  void setStickySetCompleteSentFlag(bool flag) noexcept { stickySetCompleteSentFlag_ = flag; }
  bool oldSessionIdSent() const noexcept { return oldSessionIdSent_; }
  void setOldSessionIdSent(bool sent) noexcept { oldSessionIdSent_ = sent; }
  std::int32_t totalNumOfLoggedEvent() const noexcept { return totalNumOfLoggedEvent_; }
  void setTotalNumOfLoggedEvent(std::int32_t count) noexcept { totalNumOfLoggedEvent_ = count; }
  const TriggerMap& triggerMap() const noexcept { return triggerMap_; }
  const FrameTypes& mandatoryStickySet() const noexcept { return mandatoryStickySet_; }
  const FrameTypes& stickyMessagesSeen() const noexcept { return stickyMessagesSeen_; }
  void setStickyMessagesSeen(FrameTypes seen) { stickyMessagesSeen_ = std::move(seen); }
  const std::shared_ptr<SkeldaStreamSessionId>& currentSessionId() const noexcept {
    return currentSessionId_;
  }
  void setCurrentSessionId(std::shared_ptr<SkeldaStreamSessionId> sessionId) noexcept {
    currentSessionId_ = std::move(sessionId);
  }
  std::int32_t maxWatchEventThreshold() const noexcept { return maxWatchEventThreshold_; }
  std::int32_t maxWatchDurationThreshold() const noexcept { return maxWatchDurationThreshold_; }

 private:
  SkeldaWatchStreamSessionRule(TriggerMap triggerMap, FrameTypes mandatoryStickySet,
                               std::int32_t eventThreshold, std::int32_t durationThreshold,
                               ModuleLookup lookup);
  void stepSessionForEvent(const SkeldaStreamEvent& event, Messages& prependingMessages);
  void openSession(const SkeldaStreamEvent& event, Messages& prependingMessages);
  void endSessionAt(std::int64_t elapsedEndTime, Messages& prependingMessages);
  /// The ended session is finalized at once where the mandatory set is complete; where it is not, a
  /// notice says what for it waits.
  void noteSessionEnd();
  std::int32_t triggeredStatus(std::int32_t frameType) const;
  template <class Module>
  std::shared_ptr<Module> moduleNamed(std::string_view key) const;

  bool stickySetCompleteSentFlag_ = false;
  bool oldSessionIdSent_ = true;
  std::int32_t totalNumOfLoggedEvent_ = 0;
  const TriggerMap triggerMap_;
  const FrameTypes mandatoryStickySet_;
  FrameTypes stickyMessagesSeen_;
  std::shared_ptr<SkeldaStreamSessionId> currentSessionId_;
  const std::int32_t maxWatchEventThreshold_;
  const std::int32_t maxWatchDurationThreshold_;
  const ModuleLookup lookup_;
};
