#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamCoreStickyMessagesHandler.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamCoreComponent.h"

/// Remembers the latest message of each sticky frame type and passes all of them on again right
/// behind a replay trigger, so that they open the log which the trigger begins. The stored objects
/// themselves are passed on; nothing is ever forgotten, and nothing is stored on disk.
class SkeldaStreamCoreStickyMessagesHandler : public SkeldaActorStreamCoreComponent,
                                              public ISkeldaStreamCoreStickyMessagesHandler {
 public:
  using FrameTypes = std::set<std::int32_t>;
  using StickyMessages = std::map<std::int32_t, ISkeldaStreamMessage::Ref>;
  using StickyMessageArrays = std::map<std::int32_t, std::vector<ISkeldaStreamMessage::Ref>>;

  /// `arrayFramesSet`: the sticky types of which every message is kept, not only the latest.
  static std::shared_ptr<SkeldaStreamCoreStickyMessagesHandler> stickyMessagesHandlerWithStickySet(
      FrameTypes stickyFramesSet, FrameTypes replayTriggerSet, FrameTypes arrayFramesSet);
  std::string_view className() const noexcept override {
    return "SkeldaStreamCoreStickyMessagesHandler";
  }

  void nextStageDidChangeState(std::int32_t state) override;

  const FrameTypes& stickyFramesSet() const noexcept { return stickyFramesSet_; }
  const FrameTypes& replayTriggerSet() const noexcept { return replayTriggerSet_; }
  const FrameTypes& arrayFramesSet() const noexcept { return arrayFramesSet_; }
  // Copies, taken on the stage's queue; any thread.
  StickyMessages stickyMessages();
  StickyMessageArrays stickyMessageArrays();

 protected:
  void onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message) override;

 private:
  SkeldaStreamCoreStickyMessagesHandler(FrameTypes stickyFramesSet, FrameTypes replayTriggerSet,
                                        FrameTypes arrayFramesSet);
  void onqueue_keepStickyMessage(const ISkeldaStreamMessage::Ref& message);
  void onqueue_resendStickyMessages();

  const FrameTypes stickyFramesSet_;
  const FrameTypes replayTriggerSet_;
  const FrameTypes arrayFramesSet_;
  StickyMessages stickyMessages_;
  StickyMessageArrays stickyMessageArrays_;
};
