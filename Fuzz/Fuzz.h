#pragma once

// What every fuzz target has at hand. A target ends the process where what must hold does not.

#include <algorithm>
#include <array>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>

#include "Platform/Platform.h"

inline void require(bool condition) {
  if (!condition) std::abort();
}
