#pragma once

#include <fmt/format.h>

#include <optional>
#include <string>
#include <string_view>

#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Log.h"

/// One line of the platform log, in {fmt} syntax, when the process log level is at least
/// `minimumLevel` (0: whatever the level) and somebody reads. The arguments are evaluated only
/// then.
#define SKELDA_LOG(minimumLevel, ...)                                         \
  do {                                                                        \
    if (SkeldaUtil::logs(minimumLevel) && ::skelda::platform::Log::enabled()) \
      ::skelda::platform::Log::write(::fmt::format(__VA_ARGS__));             \
  } while (false)

namespace skelda {

/// The "%@" of text that may be nil.
inline std::string_view textOrNull(const std::optional<std::string>& text) noexcept {
  return text ? std::string_view(*text) : std::string_view("(null)");
}

}  // namespace skelda
