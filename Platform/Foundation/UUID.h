#pragma once

#include <string>

namespace skelda::platform {

/// A new random UUID, upper case: "8B2F6C3E-....".
std::string newUUIDString();

}  // namespace skelda::platform
