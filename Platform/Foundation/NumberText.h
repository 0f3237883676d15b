#pragma once

#include <cstddef>

namespace skelda::platform {

/// Room for any number's text.
inline constexpr std::size_t kNumberTextCapacity = 32;

// Shortest texts that read back as the same number at the number's own width, laid out as JSON
// writers commonly do: in full while the decimal point falls within the digits that the type holds
// for sure, else with an exponent. Whole numbers end in ".0". They return the end of the text
// written to `out`, which has room for kNumberTextCapacity. The number is finite.
char* writeReal(char* out, double value) noexcept;
char* writeReal(char* out, float value) noexcept;

}  // namespace skelda::platform
