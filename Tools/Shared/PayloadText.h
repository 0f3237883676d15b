#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Foundation/Value.h"
#include "Tools/Shared/FrameLogReader.h"

namespace skelda::tools {

/// Appends text so that a terminal shows it and does nothing else: control characters (those of C1
/// and DEL among them), line separators and marks that turn the direction of writing become \uXXXX,
/// which inside a JSON text means the same; bytes that are no UTF-8 become \xXX.
void appendVisible(std::string& out, std::string_view text);

/// The payload as a JSON object; nothing where it is cut off or is none.
std::optional<platform::Dictionary> parsedPayload(const FrameRecord& frame);

/// The same with the texts that travel as base64 (an event's name, and the keys and values of its
/// parameters) decoded. What is not base64 of a text stays as it is.
platform::Dictionary decodedPayload(const FrameRecord& frame, const platform::Dictionary& payload);

/// The text behind a base64 text; nothing where there is none. A value may be null.
std::optional<std::string> decodedText(std::string_view text);
std::optional<std::string> decodedTextOf(const platform::Value* value);

/// Milliseconds since 1970 as ISO 8601 in UTC; the bare number where no calendar goes that far.
std::string wallClockText(std::int64_t milliseconds);

/// A wrong CRC, or a payload that is no JSON object; empty where there is neither. The payload is
/// looked at only where it has been kept whole.
std::string flawOf(const FrameRecord& frame);

/// What keeps the frame from being one that the agent wrote: an unknown type, or a flaw.
/// Empty for a good one.
std::string damageOf(const FrameRecord& frame);

}  // namespace skelda::tools
