#include "Analytics/Streaming/Core/SkeldaStreamDropHandler.h"

#include <algorithm>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/Core/SkeldaMessageKinds.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Utils/SkeldaLog.h"

std::shared_ptr<SkeldaStreamDropHandler> SkeldaStreamDropHandler::dropHandlerWithRules(
    DropRules dropRules) {
  return made(new SkeldaStreamDropHandler(std::move(dropRules)));
}

SkeldaStreamDropHandler::SkeldaStreamDropHandler(DropRules dropRules)
    : SkeldaActorStreamCoreComponent("SkeldaStreamDropHandler"), dropRules_(std::move(dropRules)) {}

void SkeldaStreamDropHandler::nextStageDidChangeState(std::int32_t state) {
  becomeReadyWithNextStage(state);
}

void SkeldaStreamDropHandler::onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message) {
  SKELDA_ON_QUEUE();
  SKELDA_LOG(0, "{}: message = {}", "-[SkeldaStreamDropHandler onqueue_streamMessage:]",
             skelda::descriptionOf(message));
  onqueue_preProcessMessage(message);
}

void SkeldaStreamDropHandler::onqueue_preProcessMessage(const ISkeldaStreamMessage::Ref& message) {
  SKELDA_ON_QUEUE();
  for (const auto& rule : dropRules_) {
    for (const auto& before : rule->prependMessagesBefore(message)) onqueue_processMessage(before);
  }
  onqueue_processMessage(message);
}

void SkeldaStreamDropHandler::onqueue_processMessage(const ISkeldaStreamMessage::Ref& message) {
  SKELDA_ON_QUEUE();
  if (shouldDropMessage(message)) return onqueue_drop(message);
  SkeldaActorStreamCoreComponent::onqueue_streamMessage(message);
  if (skelda::flushStatusOf(message) == SkeldaStreamFlush::kSessionFinalized) {
    resetAllDropRuleCounters();
  }
}

void SkeldaStreamDropHandler::onqueue_drop(const ISkeldaStreamMessage::Ref& /*message*/) {
  SKELDA_ON_QUEUE();
}

bool SkeldaStreamDropHandler::shouldDropMessage(const ISkeldaStreamMessage::Ref& message) {
  const auto dropping = std::find_if(dropRules_.begin(), dropRules_.end(), [&](const auto& rule) {
    return rule->shouldDropMessage(message);
  });
  if (dropping == dropRules_.end()) return false;
  if (message != nullptr) {
    SkeldaAccounting::settle(message->intakeTicket(), (*dropping)->dropReason());
  }
  return true;
}

void SkeldaStreamDropHandler::resetAllDropRuleCounters() {
  for (const auto& rule : dropRules_) rule->reset();
}
