#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessage.h"

class SkeldaStreamEvent;

/// What the stages and rules ask of a message that may be anything, null included.
namespace skelda {

/// The frame type; 0 for null, which is no type.
inline std::int32_t frameTypeOf(const ISkeldaStreamMessage::Ref& message) noexcept {
  return message ? message->frameType() : 0;
}
/// The message as an event, or null. Valid as long as the message.
const SkeldaStreamEvent* eventOf(const ISkeldaStreamMessage::Ref& message) noexcept;
/// The status of a flush; nothing for any other message.
std::optional<std::int32_t> flushStatusOf(const ISkeldaStreamMessage::Ref& message) noexcept;

/// For a trace line, "(null)" for none.
std::string descriptionOf(const ISkeldaStreamMessage::Ref& message);

}  // namespace skelda
