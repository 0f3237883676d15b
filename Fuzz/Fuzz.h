#pragma once

// What every fuzz target has at hand. A target ends the process where what must hold does not.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <string_view>

#include "Platform/Platform.h"

/// A target: it is called with any bytes, over and over, and throws nothing. The log is silent.
void fuzz(std::string_view input);

inline void require(bool condition, int line = __builtin_LINE()) {
  if (condition) return;
  std::fprintf(stderr, "line %d does not hold\n", line);
  std::abort();
}

/// The first byte, which is taken away; 0 where there is none.
inline unsigned takeByte(std::string_view& input) {
  const unsigned byte = input.empty() ? 0 : static_cast<unsigned char>(input[0]);
  input.remove_prefix(std::min<std::size_t>(1, input.size()));
  return byte;
}
