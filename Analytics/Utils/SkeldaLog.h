#pragma once

#include <fmt/format.h>

#include <optional>
#include <string>
#include <string_view>

#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/LogFormat.h"

/// One line of the platform log, in {fmt} syntax, when the process log level is at least
/// `minimumLevel` (0: whatever the level) and somebody reads. The arguments are evaluated only
/// then.
#define SKELDA_LOG(minimumLevel, ...)                                                     \
  do {                                                                                    \
    if (SkeldaUtil::says(minimumLevel))                                                   \
      ::skelda::platform::sayLogLine(::skelda::platform::Log::Kind::detail, __VA_ARGS__); \
  } while (false)

/// What a developer or an operator must act on, whatever the level: shown by default, so there are
/// few of them, and each says what is wrong and what to do. It begins "Skelda: ".
#define SKELDA_NOTICE(...) SKELDA_PLATFORM_NOTICE(__VA_ARGS__)
/// A notice the first time that it is said from this place, a detail from then on.
#define SKELDA_NOTICE_ONCE(...) SKELDA_PLATFORM_NOTICE_ONCE(__VA_ARGS__)

namespace skelda {

/// A value of the host's or the user's, an identifier or a key, for a log line: itself where
/// SKELDA_LOG_VALUES=1 asks for it, else its place.
template <class Text>
std::string_view shownValue(const Text& value) noexcept {
  return ::skelda::platform::Log::showsValues() ? std::string_view(value)
                                                : std::string_view("(not shown)");
}

/// The same of an object's description, which is made only where it is shown.
template <class Object>
std::string shownDescription(const Object& object) {
  return ::skelda::platform::Log::showsValues() ? object.description() : "(not shown)";
}

/// The "%@" of text that may be nil.
inline std::string_view textOrNull(const std::optional<std::string>& text) noexcept {
  return text ? std::string_view(*text) : std::string_view("(null)");
}

}  // namespace skelda
