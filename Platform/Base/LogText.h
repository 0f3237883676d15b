#pragma once

#include <time.h>

#include <string>
#include <string_view>

namespace skelda::platform {

/// The line with its control characters spelled out, so that one record stays one line.
std::string escapedLogLine(std::string_view line);
/// "2024-05-01T12:34:56.789Z [1234] " before the escaped line, and a line feed behind it.
std::string prefixedLogLine(const timespec& when, std::string_view line);

}  // namespace skelda::platform
