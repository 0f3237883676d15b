#include "Analytics/Streaming/Core/SkeldaStreamCorePolicy.h"

#include <utility>

#include "Analytics/Streaming/Core/SkeldaMessageKinds.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Utils/SkeldaLog.h"

namespace {

constexpr std::string_view kStreamMessage = "-[SkeldaStreamCorePolicy onqueue_streamMessage:]";
constexpr std::string_view kFlushIfNeeded =
    "-[SkeldaStreamCorePolicy onqueue_flushIfNeededWithFlushStatus:]";

}  // namespace

std::shared_ptr<SkeldaStreamCorePolicy> SkeldaStreamCorePolicy::streamPolicyWithFlushRules(
    FlushRules flushRules) {
  return made(new SkeldaStreamCorePolicy(std::move(flushRules)));
}

SkeldaStreamCorePolicy::SkeldaStreamCorePolicy(FlushRules flushRules)
    : SkeldaActorStreamCoreComponent("SkeldaStreamCorePolicy"),
      flushRules_(std::move(flushRules)) {}

void SkeldaStreamCorePolicy::nextStageDidChangeState(std::int32_t state) {
  becomeReadyWithNextStage(state);
}

void SkeldaStreamCorePolicy::onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message) {
  SKELDA_ON_QUEUE();
  using Core = SkeldaActorStreamCoreComponent;
  SKELDA_LOG(0, "{}: message = {}", kStreamMessage, skelda::descriptionOf(message));

  ISkeldaStreamFlushRule::Messages prepending;
  ISkeldaStreamFlushRule::Messages appending;
  const auto response = onqueue_flushResponseForMessage(message, prepending, appending);

  for (const auto& before : prepending) {
    SKELDA_LOG(0, "{}: prepending message = {}", kStreamMessage, skelda::descriptionOf(before));
    Core::onqueue_streamMessage(before);
  }
  if (response.flushBeforeMessage) onqueue_flushIfNeededWithFlushStatus(response.flushStatus);
  Core::onqueue_streamMessage(message);
  if (!response.flushBeforeMessage) onqueue_flushIfNeededWithFlushStatus(response.flushStatus);
  for (const auto& after : appending) {
    SKELDA_LOG(0, "{}: appending message = {}", kStreamMessage, skelda::descriptionOf(after));
    Core::onqueue_streamMessage(after);
  }
}

SkeldaStreamFlushResponse SkeldaStreamCorePolicy::onqueue_flushResponseForMessage(
    const ISkeldaStreamMessage::Ref& message, ISkeldaStreamFlushRule::Messages& prependingMessages,
    ISkeldaStreamFlushRule::Messages& appendingMessages) {
  SKELDA_ON_QUEUE();
  SkeldaStreamFlushResponse response;
  for (const auto& rule : flushRules_) {
    response = rule->refreshFlushStatusForMessage(message, prependingMessages, appendingMessages);
    if (response.flushStatus != 0) break;
  }
  return response;
}

void SkeldaStreamCorePolicy::onqueue_flushIfNeededWithFlushStatus(std::int32_t flushStatus) {
  SKELDA_ON_QUEUE();
  if (flushStatus == 0) return;
  const auto flush = SkeldaStreamFlush::streamFlushWithStatus(flushStatus);
  SKELDA_LOG(0, "{}: !!Generating Flush!! status: {}", kFlushIfNeeded,
             static_cast<std::uint32_t>(flushStatus));
  SkeldaActorStreamCoreComponent::onqueue_streamMessage(flush);
}
