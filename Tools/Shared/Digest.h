#pragma once

#include <string>
#include <string_view>

namespace skelda::tools {

/// SHA-256, in hexadecimal digits: what logs and API keys are known by behind the address. Throws
/// std::runtime_error where the library refuses. Any thread.
std::string digestOf(std::string_view bytes);

}  // namespace skelda::tools
