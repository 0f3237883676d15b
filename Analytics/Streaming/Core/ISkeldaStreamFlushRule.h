#pragma once

#include <string_view>
#include <vector>

#include "Analytics/Streaming/Core/SkeldaStreamFlushResponse.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessage.h"

/// Decides whether a flush accompanies a message. Asked on the core policy's queue only.
class ISkeldaStreamFlushRule {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamFlushRule";
  using Messages = std::vector<ISkeldaStreamMessage::Ref>;

  /// May add messages that are to go before or after the message; never null ones.
  virtual SkeldaStreamFlushResponse refreshFlushStatusForMessage(
      const ISkeldaStreamMessage::Ref& message, Messages& prependingMessages,
      Messages& appendingMessages) = 0;

 protected:
  ~ISkeldaStreamFlushRule() = default;
};
