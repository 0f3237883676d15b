#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Analytics/Streaming/Core/ISkeldaStreamDropRule.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamCoreComponent.h"

/// Discards what a drop rule tells it to, puts in front of a message what the rules want there, and
/// resets the rules behind the flush that finalizes a session.
class SkeldaStreamDropHandler : public SkeldaActorStreamCoreComponent {
 public:
  /// A set; the rules are asked in the order given.
  using DropRules = std::vector<std::shared_ptr<ISkeldaStreamDropRule>>;

  static std::shared_ptr<SkeldaStreamDropHandler> dropHandlerWithRules(DropRules dropRules);
  std::string_view className() const noexcept override { return "SkeldaStreamDropHandler"; }

  void nextStageDidChangeState(std::int32_t state) override;
  const DropRules& dropRules() const noexcept { return dropRules_; }

 protected:
  void onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message) override;

 private:
  explicit SkeldaStreamDropHandler(DropRules dropRules);
  void onqueue_preProcessMessage(const ISkeldaStreamMessage::Ref& message);
  void onqueue_processMessage(const ISkeldaStreamMessage::Ref& message);
  /// The one end of what a rule discards.
  void onqueue_drop(const ISkeldaStreamMessage::Ref& message);
  bool shouldDropMessage(const ISkeldaStreamMessage::Ref& message);
  void resetAllDropRuleCounters();

  const DropRules dropRules_;
};
