#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Tools/skelda-fleet/FleetSimulation.h"

namespace skelda::fleet {

/// "45.1 s", "5.0 min", "3.2 h"; "-" for what did not come.
std::string durationText(const std::optional<Instant>& duration);

/// The tables of docs/fleet.md, each of several runs of the simulation. The same runs give the same
/// figures, on every machine.
class FleetTables {
 public:
  static std::vector<std::string> names();
  /// For fleets of so many devices, or of those that the document has. Hands out a line of Markdown
  /// as soon as it is known. A name that is not among names() is std::out_of_range.
  static void print(const std::string& name, std::vector<std::uint32_t> devices,
                    const std::function<void(const std::string&)>& line);
};

}  // namespace skelda::fleet
