#pragma once

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamComponent.h"

/// The stage that replays the environment at the head of every log.
class ISkeldaStreamCoreStickyMessagesHandler : public virtual ISkeldaStreamComponent {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamCoreStickyMessagesHandler";
};
