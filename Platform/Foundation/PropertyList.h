#pragma once

#include <optional>
#include <string>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Value.h"

namespace skelda::platform {

/// Reads a property list, XML or binary. Size (1 MiB) and nesting (64) are checked before the
/// library that parses it sees a byte, as it recurses without a limit. Nothing, and an error, for
/// anything else.
std::optional<Value> readPropertyList(const Data& data, ErrorRef* error = nullptr);

}  // namespace skelda::platform
