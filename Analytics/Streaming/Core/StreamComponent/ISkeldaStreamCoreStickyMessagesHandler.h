#pragma once

#include <string_view>

/// The stage that replays the environment at the head of every log.
class ISkeldaStreamCoreStickyMessagesHandler {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamCoreStickyMessagesHandler";

 protected:
  ~ISkeldaStreamCoreStickyMessagesHandler() = default;
};
