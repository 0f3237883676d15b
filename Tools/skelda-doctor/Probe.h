#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "Skelda_Watch/SkeldaStatus.h"

namespace skelda::tools {

/// Asks the server for its head, without an API key and without a body, and says what stands
/// between it and this machine: the name, the connection, the certificate, the clock.
std::vector<SkeldaFinding> probe(const std::string& address, std::chrono::milliseconds longest);

}  // namespace skelda::tools
