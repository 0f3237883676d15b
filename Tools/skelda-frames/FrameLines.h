#pragma once

#include <string>

#include "Tools/Shared/FrameLogReader.h"

namespace skelda::tools {

/// One frame on one line, for people: offset, version, type, class, wall-clock time, uptime,
/// payload length, CRC, payload. With `plain`, base64 texts are shown decoded.
std::string frameLine(const FrameRecord& frame, bool plain);

/// One frame as one JSON object, for programs.
std::string frameJSON(const FrameRecord& frame, const std::string& file, bool plain);

}  // namespace skelda::tools
