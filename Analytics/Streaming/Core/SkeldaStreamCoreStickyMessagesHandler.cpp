#include "Analytics/Streaming/Core/SkeldaStreamCoreStickyMessagesHandler.h"

#include <utility>

#include "Analytics/Streaming/Core/SkeldaMessageKinds.h"
#include "Analytics/Utils/SkeldaLog.h"

namespace {

constexpr std::string_view kStreamMessage =
    "-[SkeldaStreamCoreStickyMessagesHandler onqueue_streamMessage:]";

}  // namespace

std::shared_ptr<SkeldaStreamCoreStickyMessagesHandler>
SkeldaStreamCoreStickyMessagesHandler::stickyMessagesHandlerWithStickySet(
    FrameTypes stickyFramesSet, FrameTypes replayTriggerSet, FrameTypes arrayFramesSet) {
  return made(new SkeldaStreamCoreStickyMessagesHandler(
      std::move(stickyFramesSet), std::move(replayTriggerSet), std::move(arrayFramesSet)));
}

SkeldaStreamCoreStickyMessagesHandler::SkeldaStreamCoreStickyMessagesHandler(
    FrameTypes stickyFramesSet, FrameTypes replayTriggerSet, FrameTypes arrayFramesSet)
    : SkeldaActorStreamCoreComponent("SkeldaStreamCoreStickyMessagesHandler"),
      stickyFramesSet_(std::move(stickyFramesSet)),
      replayTriggerSet_(std::move(replayTriggerSet)),
      arrayFramesSet_(std::move(arrayFramesSet)) {}

void SkeldaStreamCoreStickyMessagesHandler::nextStageDidChangeState(std::int32_t state) {
  becomeReadyWithNextStage(state);
}

SkeldaStreamCoreStickyMessagesHandler::StickyMessages
SkeldaStreamCoreStickyMessagesHandler::stickyMessages() {
  StickyMessages copy;
  syncBlock([&] { copy = stickyMessages_; });
  return copy;
}

SkeldaStreamCoreStickyMessagesHandler::StickyMessageArrays
SkeldaStreamCoreStickyMessagesHandler::stickyMessageArrays() {
  StickyMessageArrays copy;
  syncBlock([&] { copy = stickyMessageArrays_; });
  return copy;
}

void SkeldaStreamCoreStickyMessagesHandler::onqueue_streamMessage(
    const ISkeldaStreamMessage::Ref& message) {
  SKELDA_ON_QUEUE();
  if (!SkeldaUtil::assertNotNil(message, kStreamMessage)) return;
  SKELDA_LOG(0, "{}: message = {}", kStreamMessage, skelda::descriptionOf(message));
  if (stickyFramesSet_.contains(message->frameType())) onqueue_keepStickyMessage(message);
  SkeldaActorStreamCoreComponent::onqueue_streamMessage(message);
  if (replayTriggerSet_.contains(message->frameType())) {
    SKELDA_LOG(0, "{}: got a replay trigger - {}, replaying sticky set", kStreamMessage,
               message->className());
    onqueue_resendStickyMessages();
  }
}

void SkeldaStreamCoreStickyMessagesHandler::onqueue_keepStickyMessage(
    const ISkeldaStreamMessage::Ref& message) {
  SKELDA_ON_QUEUE();
  const std::int32_t frameType = message->frameType();
  if (arrayFramesSet_.contains(frameType)) {
    stickyMessageArrays_[frameType].push_back(message);
  } else {
    stickyMessages_[frameType] = message;
  }
  SKELDA_LOG(0, "{}: stickyMessagesSeen count - {}, sticky set count - {}", kStreamMessage,
             stickyMessages_.size(), stickyFramesSet_.size());
}

void SkeldaStreamCoreStickyMessagesHandler::onqueue_resendStickyMessages() {
  SKELDA_ON_QUEUE();
  std::vector<ISkeldaStreamMessage::Ref> replayed;
  for (const auto& [frameType, message] : stickyMessages_) replayed.push_back(message);
  for (const auto& [frameType, messages] : stickyMessageArrays_) {
    replayed.insert(replayed.end(), messages.begin(), messages.end());
  }
  onqueue_streamMessages(replayed);
}
