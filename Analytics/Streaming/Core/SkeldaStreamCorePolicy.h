#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Analytics/Streaming/Core/ISkeldaStreamFlushRule.h"
#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamCorePolicy.h"
#include "Analytics/Streaming/Core/StreamComponent/SkeldaActorStreamCoreComponent.h"

/// Asks its flush rules about each message and passes on, in this order: what the rules put before
/// it, the message and the flush (either may come first), what the rules put after it. Drops
/// nothing.
class SkeldaStreamCorePolicy : public SkeldaActorStreamCoreComponent,
                               public ISkeldaStreamCorePolicy {
 public:
  /// A set; the rules are asked in the order given.
  using FlushRules = std::vector<std::shared_ptr<ISkeldaStreamFlushRule>>;

  static std::shared_ptr<SkeldaStreamCorePolicy> streamPolicyWithFlushRules(FlushRules flushRules);
  std::string_view className() const noexcept override { return "SkeldaStreamCorePolicy"; }

  void nextStageDidChangeState(std::int32_t state) override;
  const FlushRules& flushRules() const noexcept { return flushRules_; }

 protected:
  void onqueue_streamMessage(const ISkeldaStreamMessage::Ref& message) override;

 private:
  explicit SkeldaStreamCorePolicy(FlushRules flushRules);
  SkeldaStreamFlushResponse onqueue_flushResponseForMessage(
      const ISkeldaStreamMessage::Ref& message,
      ISkeldaStreamFlushRule::Messages& prependingMessages,
      ISkeldaStreamFlushRule::Messages& appendingMessages);
  void onqueue_flushIfNeededWithFlushStatus(std::int32_t flushStatus);

  const FlushRules flushRules_;
};
