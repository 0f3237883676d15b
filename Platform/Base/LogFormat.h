#pragma once

#include <fmt/format.h>

#include <atomic>

#include "Platform/Base/Log.h"

namespace skelda::platform {

/// Formats and writes one line, in one place for all that say lines, which are many. A line that
/// cannot be formatted for want of memory is lost; it never throws.
[[gnu::cold]] void formatLogLine(Log::Kind kind, fmt::string_view format,
                                 fmt::format_args arguments) noexcept;

template <class... Arguments>
[[gnu::always_inline]] inline void sayLogLine(Log::Kind kind,
                                              fmt::format_string<Arguments...> format,
                                              Arguments&&... arguments) noexcept {
  formatLogLine(kind, format, fmt::make_format_args(arguments...));
}

}  // namespace skelda::platform

/// Formats and writes one line of the platform log; the arguments are evaluated only when somebody
/// reads lines of that kind.
#define SKELDA_PLATFORM_LINE(kind, ...)                      \
  do {                                                       \
    const auto lineKind = (kind);                            \
    if (::skelda::platform::Log::enabled(lineKind))          \
      ::skelda::platform::sayLogLine(lineKind, __VA_ARGS__); \
  } while (false)

#define SKELDA_PLATFORM_LOG(...) \
  SKELDA_PLATFORM_LINE(::skelda::platform::Log::Kind::detail, __VA_ARGS__)

/// What somebody must act on: shown by default, so it says what is wrong and what to do.
#define SKELDA_PLATFORM_NOTICE(...) \
  SKELDA_PLATFORM_LINE(::skelda::platform::Log::Kind::notice, __VA_ARGS__)

/// A notice the first time that it is said from this place, a detail from then on.
#define SKELDA_PLATFORM_NOTICE_ONCE(...)                                        \
  do {                                                                          \
    static ::std::atomic<bool> saidBefore{false};                               \
    SKELDA_PLATFORM_LINE(saidBefore.exchange(true, ::std::memory_order_relaxed) \
                             ? ::skelda::platform::Log::Kind::detail            \
                             : ::skelda::platform::Log::Kind::notice,           \
                         __VA_ARGS__);                                          \
  } while (false)
