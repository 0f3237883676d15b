#pragma once

#include <string>

#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// JSON of dictionaries.
class SkeldaJSON {
 public:
  SkeldaJSON() = delete;
  /// "{}" and a log line where the dictionary has no JSON. Never throws.
  static std::string skeldaJsonStringWithPrettyPrint(const platform::Dictionary& dictionary,
                                                     bool prettyPrint) noexcept;
};
