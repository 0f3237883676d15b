#pragma once

#include <optional>
#include <string_view>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessage.h"

/// Turns messages into frames. Stateless and re-entrant: any queue.
class ISkeldaStreamMessageSerializer {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamMessageSerializer";

  /// The bytes of one frame; nothing for a message without a payload, with an empty one, or of a
  /// type that the table of frame types does not hold.
  virtual std::optional<platform::Data> frameFromStreamMessage(
      const ISkeldaStreamMessage& message) const = 0;

 protected:
  ~ISkeldaStreamMessageSerializer() = default;
};
