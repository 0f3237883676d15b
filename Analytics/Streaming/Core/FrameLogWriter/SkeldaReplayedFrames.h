#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessage.h"
#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessageSerializer.h"
#include "Platform/Foundation/Data.h"

/// Makes frames, and keeps those of messages that come again: the head of each log holds the same
/// messages as the one before, and a message that was handed on does not change. One of each frame
/// type is kept. Called from its owner's queue.
class SkeldaReplayedFrames {
 public:
  /// The frame types of which messages come again.
  explicit SkeldaReplayedFrames(std::set<std::int32_t> frameTypes);

  /// Nothing where the serializer makes no frame. Valid until the next call.
  const std::optional<platform::Data>& frameOf(const ISkeldaStreamMessage::Ref& message,
                                               const ISkeldaStreamMessageSerializer& serializer);

 private:
  struct Kept {
    std::weak_ptr<ISkeldaStreamMessage> message;
    std::optional<platform::Data> frame;
  };

  const std::set<std::int32_t> frameTypes_;
  std::map<std::int32_t, Kept> kept_;
  std::optional<platform::Data> other_;
};
