#pragma once

#include <string>

#include "Skelda_Watch/SkeldaStatus.h"

namespace skelda::tools {

/// What was found, for people: what holds events up, with what to do, then what else is good to
/// know.
std::string textOf(const SkeldaStatus& status);
/// The same for programs, one JSON object.
std::string jsonOf(const SkeldaStatus& status);

}  // namespace skelda::tools
