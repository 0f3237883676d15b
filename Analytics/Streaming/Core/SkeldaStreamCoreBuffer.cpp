#include "Analytics/Streaming/Core/SkeldaStreamCoreBuffer.h"

#include <utility>

#include "Analytics/Streaming/Core/SkeldaMessageKinds.h"
#include "Analytics/Utils/SkeldaLog.h"

std::shared_ptr<SkeldaStreamCoreBuffer> SkeldaStreamCoreBuffer::streamBuffer() {
  return made(new SkeldaStreamCoreBuffer());
}

SkeldaStreamCoreBuffer::SkeldaStreamCoreBuffer()
    : SkeldaActorStreamCoreComponent("SkeldaStreamCoreBuffer") {}

void SkeldaStreamCoreBuffer::didInit() {
  SkeldaActorStreamCoreComponent::didInit();
  deferredQueue_ = createDeferredQueueWithDescription("SkeldaStreamComponentBufferDeferredQueue");
  deferredQueue_->resume();
}

void SkeldaStreamCoreBuffer::streamMessage(ISkeldaStreamMessage::Ref message) {
  SKELDA_LOG(2, "{}: msg = {}", "-[SkeldaStreamCoreBuffer streamMessage:]",
             skelda::descriptionOf(message));
  // A waiting block holds its actor.
  deferredQueue_->asyncBlock(
      [this, message = std::move(message)] { onqueue_streamMessage(message); });
}

void SkeldaStreamCoreBuffer::nextStageDidChangeState(std::int32_t state) {
  becomeReadyWithNextStage(state);
}

void SkeldaStreamCoreBuffer::pause() {
  deferredQueue_->suspend();
}

void SkeldaStreamCoreBuffer::resume() {
  deferredQueue_->resume();
}
