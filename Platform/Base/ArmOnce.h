#pragma once

#include <type_traits>
#include <utility>

namespace skelda::platform {

/// Calls `arm` where the flag is not set yet, and sets it: for what is to come once, until somebody
/// clears the flag. What could not be armed is not taken for armed: the flag is clear where `arm`
/// throws, want of memory for one. A plain flag, or an atomic one.
template <class Flag, class Arm>
void armOnce(Flag& isArmed, Arm&& arm) {
  bool wasArmed = false;
  if constexpr (std::is_same_v<Flag, bool>) {
    wasArmed = std::exchange(isArmed, true);
  } else {
    wasArmed = isArmed.exchange(true);
  }
  if (wasArmed) return;
  try {
    std::forward<Arm>(arm)();
  } catch (...) {
    isArmed = false;
    throw;
  }
}

}  // namespace skelda::platform
