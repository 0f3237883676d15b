#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamCoreComponent.h"

#include "Platform/Foundation/Exception.h"

SkeldaActorStreamCoreComponent::SkeldaActorStreamCoreComponent()
    : SkeldaActorStreamComponentBase() {}

SkeldaActorStreamCoreComponent::SkeldaActorStreamCoreComponent(const std::string& description)
    : SkeldaActorStreamComponentBase(description) {}

void SkeldaActorStreamCoreComponent::startup() {
  post<&SkeldaActorStreamCoreComponent::onqueue_startup>();
}

void SkeldaActorStreamCoreComponent::updateState(std::int32_t state) {
  post<&SkeldaActorStreamCoreComponent::onqueue_updateState>(state);
}

void SkeldaActorStreamCoreComponent::nextStageDidChangeState(std::int32_t /*state*/) {
  platform::abortOnFailedAssertion("0");
}

std::int32_t SkeldaActorStreamCoreComponent::moduleState() {
  std::int32_t state = 0;
  syncBlock([&] { state = moduleState_; });
  return state;
}

std::vector<ISkeldaStreamMessage::Ref> SkeldaActorStreamCoreComponent::deferredMessageQueue() {
  std::vector<ISkeldaStreamMessage::Ref> copy;
  syncBlock([&] { copy = deferredMessageQueue_; });
  return copy;
}

void SkeldaActorStreamCoreComponent::onqueue_streamMessage(
    const ISkeldaStreamMessage::Ref& message) {
  SKELDA_ON_QUEUE();
  if (moduleState_ == kStateReady && messagesOnTheirHop_ == 0) {
    SkeldaActorStreamComponentBase::onqueue_streamMessage(message);
    return;
  }
  // While one is on its hop, those behind it take the hop as well: none overtakes another.
  ++messagesOnTheirHop_;
  post<&SkeldaActorStreamCoreComponent::onqueue_holdOrForward>(message);
}

void SkeldaActorStreamCoreComponent::onqueue_streamMessages(
    const std::vector<ISkeldaStreamMessage::Ref>& messages) {
  SKELDA_ON_QUEUE();
  if (moduleState_ == kStateReady && messagesOnTheirHop_ == 0) {
    return SkeldaActorStreamComponentBase::onqueue_streamMessages(messages);
  }
  for (const auto& message : messages) {
    SkeldaActorStreamCoreComponent::onqueue_streamMessage(message);
  }
}

void SkeldaActorStreamCoreComponent::onqueue_holdOrForward(
    const ISkeldaStreamMessage::Ref& message) {
  SKELDA_ON_QUEUE();
  --messagesOnTheirHop_;
  if (moduleState_ != kStateReady) {
    deferredMessageQueue_.push_back(message);
  } else {
    SkeldaActorStreamComponentBase::onqueue_streamMessage(message);
  }
}

void SkeldaActorStreamCoreComponent::onqueue_startup() {
  SKELDA_ON_QUEUE();
  moduleState_ = kStateStarted;
}

void SkeldaActorStreamCoreComponent::onqueue_updateState(std::int32_t state) {
  SKELDA_ON_QUEUE();
  moduleState_ = state;
  if (moduleState_ == kStateReady) {
    // The list keeps what it released: a second change to ready sends the same messages again.
    for (const auto& message : deferredMessageQueue_) {
      SkeldaActorStreamComponentBase::onqueue_streamMessage(message);
    }
  }
  onqueue_notifyChangedState(state);
}

void SkeldaActorStreamCoreComponent::onqueue_notifyChangedState(std::int32_t state) {
  SKELDA_ON_QUEUE();
  for (const auto& stage : onqueue_livePreviousStages()) {
    if (const auto core = std::dynamic_pointer_cast<ISkeldaStreamCoreComponent>(stage)) {
      core->nextStageDidChangeState(state);
    }
  }
}

void SkeldaActorStreamCoreComponent::becomeReadyWithNextStage(std::int32_t state) {
  if (state == kStateReady) updateState(kStateReady);
}
