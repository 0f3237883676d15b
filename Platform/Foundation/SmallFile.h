#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace skelda::platform {

/// The content of a regular file of at most `maximumBytes`, read at once; nothing for anything
/// else. For small files of the system and of the bundle, whatever somebody put in their place.
std::optional<std::string> readSmallFile(const std::string& path, std::size_t maximumBytes);

}  // namespace skelda::platform
