#pragma once

#include <fmt/format.h>

#include "Platform/Base/Log.h"

/// Formats and writes one line of the platform log; the arguments are evaluated only when somebody
/// reads.
#define SKELDA_PLATFORM_LOG(...)                                  \
  do {                                                            \
    if (::skelda::platform::Log::enabled())                       \
      ::skelda::platform::Log::write(::fmt::format(__VA_ARGS__)); \
  } while (false)
