#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessageSerializer.h"
#include "Platform/Foundation/Object.h"

/// The writer of the frame format. It never looks inside a payload.
class SkeldaStreamMessageSerializer : public ISkeldaStreamMessageSerializer,
                                      public platform::Object {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamMessageSerializer";

  static std::shared_ptr<SkeldaStreamMessageSerializer> streamMessageSerializer();
  /// Whether the message has a payload that is not empty and a type that the table holds. Computes
  /// the payload; frameFromStreamMessage() needs no such call before it.
  /// Whether a frame has room for a payload of that length, which is not 0. Says in the log where
  /// one is too long.
  static bool hasRoomForPayload(std::uint64_t length, std::int32_t frameType);
  static bool isValidStreamMessage(const ISkeldaStreamMessage& message);

  std::string_view className() const noexcept override { return kClassName; }
  /// Computes the payload once and writes it straight into the frame.
  std::optional<platform::Data> frameFromStreamMessage(
      const ISkeldaStreamMessage& message) const override;
};
