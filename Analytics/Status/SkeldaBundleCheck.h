#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// How the agent takes an information dictionary: every key that it reads, and those that look as
/// if they were meant to be one of them. Pure.
namespace SkeldaBundleCheck {

struct Line {
  std::string key;
  bool isPresent = false;
  /// What will be used in the agent, in words; empty where nothing is. The API key is not shown.
  std::string value;
  /// What is wrong with it; empty where nothing is.
  std::string problem;
  /// Whether events are refused for it.
  bool isBlocking = false;
};

/// The identifier of the bundle first, then the settings as they stand in their table, then keys
/// that the agent does not know and that look like one of its own.
std::vector<Line> linesOf(const platform::Dictionary& information);

/// A key of the dictionary that the agent does not know and that looks like this one; empty where
/// there is none.
std::string keyLike(std::string_view key, const platform::Dictionary& information);

}  // namespace SkeldaBundleCheck
