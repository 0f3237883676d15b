#include "Analytics/Streaming/Core/FrameLogWriter/SkeldaReplayedFrames.h"

#include <utility>

SkeldaReplayedFrames::SkeldaReplayedFrames(std::set<std::int32_t> frameTypes)
    : frameTypes_(std::move(frameTypes)) {}

const std::optional<platform::Data>& SkeldaReplayedFrames::frameOf(
    const ISkeldaStreamMessage::Ref& message, const ISkeldaStreamMessageSerializer& serializer) {
  const std::int32_t type = message->frameType();
  if (!frameTypes_.contains(type)) return other_ = serializer.frameFromStreamMessage(*message);
  Kept& kept = kept_[type];
  // The very object: another one may lie where one was that is gone.
  if (kept.message.lock() != message) {
    kept.message.reset();
    kept.frame = serializer.frameFromStreamMessage(*message);
    kept.message = message;
  }
  return kept.frame;
}
