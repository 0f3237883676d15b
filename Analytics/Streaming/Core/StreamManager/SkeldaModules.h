#pragma once

#include <string>
#include <vector>

namespace skelda {

/// Makes the sources and data providers known to the class registry by name, once. The tables of
/// this file's source are the one place that names them: a linker drops what nothing refers to.
void registerModules();

// What the manager makes of the tables, each in the order that counts.

/// [source class, registry key]
std::vector<std::vector<std::string>> sourceChain();
/// [provider class, registry key of the source that observes it]
std::vector<std::vector<std::string>> providerChain();
/// Registry keys of what is started when the agent starts.
std::vector<std::string> startOrder();

}  // namespace skelda
