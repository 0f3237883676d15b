#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Value.h"

namespace skelda::platform {

/// One archived object: the name of its class and its content under its archive keys. For a plain
/// dictionary the class name is "NSDictionary".
struct KeyedArchive {
  std::string className;
  Value root;
};

/// The archive as a JSON text that jq reads:
///   {"archive": "skelda", "version": 1, "class": "...", "root": ...}
/// Every kind of value comes back as it went in: what JSON has no word for is written as an object
/// with one "$" key: {"$data": base64}, {"$date": microseconds}, {"$float": number},
/// {"$uint": number}; a dictionary that would look like one is wrapped as {"$dict": {...}}.
Data archivedData(const KeyedArchive& archive);
/// The same where the root's text is there already.
Data archivedData(std::string_view className, std::string_view rootText);
/// What stands for the value in an archive's text.
std::string archivedText(const Value& value);

/// Throws Exception ("NSInvalidUnarchiveOperationException") on anything that is not an archive.
KeyedArchive unarchivedObject(const Data& data);

}  // namespace skelda::platform
