#pragma once

#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessage.h"
#include "Platform/Foundation/Value.h"

/// A message that is a record: it has a JSON form. A class that is read back also has a static
/// streamEntityFromJSONData().
class ISkeldaStreamEntity : public ISkeldaStreamMessage {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamEntity";

  /// The record as JSON-ready values; nothing where the record is not valid.
  virtual std::optional<platform::Dictionary> dictionaryRepresentation() const = 0;
  /// The same as compact JSON text.
  virtual std::optional<std::string> jsonRepresentation() const = 0;
};
