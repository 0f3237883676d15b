#pragma once

// What every test has at hand: the framework, the standard library, the system, the layer's names.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>
#include <numeric>
#include <optional>
#include <random>
#include <semaphore>
#include <stdexcept>
#include <thread>

#include "Platform/Platform.h"

namespace skelda::testing {
using namespace platform;
using namespace std::chrono_literals;
using Texts = std::vector<std::string>;
/// What stands at an enumerator's place.
auto& at(auto& counts, auto of) {
  return counts[static_cast<std::size_t>(of)];
}
inline void addWord(std::string& words, const std::string& word) {
  words += (words.empty() ? "" : " ") + word;
}
}  // namespace skelda::testing
// The tests themselves stand in no namespace but one without a name.
using namespace skelda::testing;  // NOLINT
