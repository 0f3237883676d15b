#pragma once

#include <string_view>

namespace skelda::platform {

/// A C-level assertion failure: writes `condition` to standard error and aborts, in every build.
[[noreturn]] void abortOnFailedAssertion(std::string_view condition) noexcept;

}  // namespace skelda::platform
