#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Value.h"

namespace skelda::platform {

/// Bounds on what is read, since it may be hostile.
struct JSONLimits {
  std::size_t maximumDepth = 64;
  std::size_t maximumBytes = std::size_t{64} << 20;
  /// Containers and what they hold: a value takes many times the memory of its text.
  std::size_t maximumValues = std::size_t{1} << 20;
};

/// Reads one JSON text into a value: whole numbers become integers (unsigned where they must),
/// others doubles; a repeated key keeps its last value. Nothing, and an error, for anything that is
/// not one valid text within the limits. Never throws but for want of memory.
std::optional<Value> readJSON(std::string_view text, ErrorRef* error = nullptr,
                              const JSONLimits& limits = {});

}  // namespace skelda::platform
