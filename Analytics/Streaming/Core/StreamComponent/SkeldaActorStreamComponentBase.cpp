#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamComponentBase.h"

#include <algorithm>
#include <utility>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Exception.h"

namespace {

constexpr std::string_view kRegisterNextTag =
    "-[SkeldaActorStreamComponentBase registerNextStageComponent:]";
constexpr std::string_view kRegisterPreviousTag =
    "-[SkeldaActorStreamComponentBase registerPreviousStageComponent:]";
constexpr std::string_view kOnQueueRegisterPreviousTag =
    "-[SkeldaActorStreamComponentBase onqueue_registerPreviousStageComponent:]";
constexpr std::string_view kStartupTag = "-[SkeldaActorStreamComponentBase startup]";
constexpr std::string_view kSyncResponseTag =
    "-[SkeldaActorStreamComponentBase onqueue_sendToPreviousStageSyncResponse:]";
constexpr std::string_view kAsyncResponseTag =
    "-[SkeldaActorStreamComponentBase onqueue_sendToPreviousStageAsyncResponse:]";

}  // namespace

SkeldaActorStreamComponentBase::SkeldaActorStreamComponentBase()
    : SkeldaActor((platform::abortOnFailedAssertion("0"), std::string())) {}

SkeldaActorStreamComponentBase::SkeldaActorStreamComponentBase(const std::string& description)
    : SkeldaActor(description) {}

void SkeldaActorStreamComponentBase::streamMessage(ISkeldaStreamMessage::Ref message) {
  post<&SkeldaActorStreamComponentBase::onqueue_streamMessage>(std::move(message));
}

std::optional<std::set<std::int32_t>> SkeldaActorStreamComponentBase::supportedFrameTypes() const {
  return SkeldaStreamFrameTypeUtil::allFrameTypes();
}

void SkeldaActorStreamComponentBase::registerNextStageComponent(
    std::shared_ptr<ISkeldaStreamComponent> stage) {
  if (!SkeldaUtil::assertNotNil(stage, kRegisterNextTag)) return;
  if (!SkeldaUtil::assertNotNil(stage->supportedFrameTypes(), kRegisterNextTag)) return;
  post<&SkeldaActorStreamComponentBase::onqueue_registerNextStageComponent>(std::move(stage));
}

void SkeldaActorStreamComponentBase::registerPreviousStageComponent(
    std::shared_ptr<ISkeldaStreamComponent> stage) {
  if (!SkeldaUtil::assertNotNil(stage, kRegisterPreviousTag)) return;
  post<&SkeldaActorStreamComponentBase::onqueue_registerPreviousStageComponent>(std::move(stage));
}

void SkeldaActorStreamComponentBase::asyncStreamResponse(platform::ObjectRef response) {
  post<&SkeldaActorStreamComponentBase::onqueue_streamResponse>(std::move(response));
}

void SkeldaActorStreamComponentBase::syncStreamResponse(platform::ObjectRef response) {
  syncBlock([this, &response] { onqueue_streamResponse(response); });
}

void SkeldaActorStreamComponentBase::startup() {
  SkeldaUtil::assert_(false, kStartupTag);
}

SkeldaNextStageMap SkeldaActorStreamComponentBase::frameTypeToNextStageComponentsMap() {
  SkeldaNextStageMap copy;
  syncBlock([&] { copy = frameTypeToNextStageComponentsMap_; });
  return copy;
}

std::vector<std::shared_ptr<ISkeldaStreamComponent>>
SkeldaActorStreamComponentBase::previousStageComponents() {
  std::vector<std::shared_ptr<ISkeldaStreamComponent>> live;
  syncBlock([&] { live = onqueue_livePreviousStages(); });
  return live;
}

void SkeldaActorStreamComponentBase::onqueue_streamMessage(
    const ISkeldaStreamMessage::Ref& message) {
  SKELDA_ON_QUEUE();
  if (!message) return;
  const auto* stages = frameTypeToNextStageComponentsMap_.find(message->frameType());
  if (stages == nullptr) return;
  for (const auto& stage : *stages) stage->streamMessage(message);
}

void SkeldaActorStreamComponentBase::onqueue_streamMessages(
    const std::vector<ISkeldaStreamMessage::Ref>& messages) {
  SKELDA_ON_QUEUE();
  using Stage = std::shared_ptr<ISkeldaStreamComponent>;
  std::vector<std::pair<Stage, std::vector<ISkeldaStreamMessage::Ref>>> shares;
  for (const auto& message : messages) {
    const auto* stages = frameTypeToNextStageComponentsMap_.find(message->frameType());
    if (stages == nullptr) continue;
    for (const auto& stage : *stages) {
      auto share = std::ranges::find(shares, stage, [](const auto& one) { return one.first; });
      if (share == shares.end()) share = shares.insert(shares.end(), {stage, {}});
      share->second.push_back(message);
    }
  }
  for (auto& [stage, share] : shares) stage->streamMessages(std::move(share));
}

void SkeldaActorStreamComponentBase::onqueue_registerNextStageComponent(
    const std::shared_ptr<ISkeldaStreamComponent>& stage) {
  SKELDA_ON_QUEUE();
  const auto frameTypes = stage->supportedFrameTypes();
  if (!frameTypes) return;
  for (const std::int32_t frameType : *frameTypes) {
    frameTypeToNextStageComponentsMap_[frameType].push_back(stage);
  }
}

void SkeldaActorStreamComponentBase::onqueue_registerPreviousStageComponent(
    const std::shared_ptr<ISkeldaStreamComponent>& stage) {
  SKELDA_ON_QUEUE();
  const auto known = onqueue_livePreviousStages();
  const bool isNew = std::find(known.begin(), known.end(), stage) == known.end();
  if (SkeldaUtil::assert_(isNew, kOnQueueRegisterPreviousTag)) {
    previousStageComponents_.push_back(stage);
  }
}

void SkeldaActorStreamComponentBase::onqueue_streamResponse(const platform::ObjectRef& response) {
  SKELDA_ON_QUEUE();
  onqueue_sendToPreviousStageSyncResponse(response);
}

void SkeldaActorStreamComponentBase::onqueue_sendToPreviousStageSyncResponse(
    const platform::ObjectRef& response) {
  SKELDA_ON_QUEUE();
  if (!SkeldaUtil::assertNotNil(response, kSyncResponseTag)) return;
  for (const auto& stage : onqueue_livePreviousStages()) stage->syncStreamResponse(response);
}

void SkeldaActorStreamComponentBase::onqueue_sendToPreviousStageAsyncResponse(
    const platform::ObjectRef& response) {
  SKELDA_ON_QUEUE();
  if (!SkeldaUtil::assertNotNil(response, kAsyncResponseTag)) return;
  for (const auto& stage : onqueue_livePreviousStages()) stage->asyncStreamResponse(response);
}

std::vector<std::shared_ptr<ISkeldaStreamComponent>>
SkeldaActorStreamComponentBase::onqueue_livePreviousStages() {
  SKELDA_ON_QUEUE();
  std::vector<std::shared_ptr<ISkeldaStreamComponent>> live;
  std::erase_if(previousStageComponents_, [&live](const auto& weak) {
    auto stage = weak.lock();
    if (stage) live.push_back(std::move(stage));
    return weak.expired();
  });
  return live;
}
