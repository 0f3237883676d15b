#pragma once

#include <string_view>
#include <vector>

#include "Analytics/Intake/Account/SkeldaIntakeTicket.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessage.h"

/// Decides whether a message is discarded. Asked on the drop handler's queue only.
class ISkeldaStreamDropRule {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamDropRule";

  /// What is to go in front of the message, in order.
  virtual std::vector<ISkeldaStreamMessage::Ref> prependMessagesBefore(
      const ISkeldaStreamMessage::Ref& message) = 0;
  virtual bool shouldDropMessage(const ISkeldaStreamMessage::Ref& message) = 0;
  /// Why, of the message that the rule said to drop last.
  virtual SkeldaIntakeOutcome dropReason() const noexcept = 0;
  /// Starts a new session: what was counted is forgotten.
  virtual void reset() = 0;

 protected:
  ~ISkeldaStreamDropRule() = default;
};
