#pragma once

namespace skelda {

/// Makes the sources and data providers known to the class registry by name, once. This is the one
/// place that names them: a linker drops what nothing refers to.
void registerModules();

}  // namespace skelda
