#include "Analytics/Streaming/Core/SkeldaMessageKinds.h"

#include <fmt/format.h>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"

#include "Platform/Base/Log.h"
#include "Platform/Platform.h"

namespace skelda {

const SkeldaStreamEvent* eventOf(const ISkeldaStreamMessage::Ref& message) noexcept {
  if (frameTypeOf(message) != SkeldaStreamFrameTypeUtil::kEvent) return nullptr;
  return dynamic_cast<const SkeldaStreamEvent*>(message.get());
}

std::optional<std::int32_t> flushStatusOf(const ISkeldaStreamMessage::Ref& message) noexcept {
  if (frameTypeOf(message) != SkeldaStreamFrameTypeUtil::kFlush) return std::nullopt;
  const auto* flush = dynamic_cast<const SkeldaStreamFlush*>(message.get());
  return flush != nullptr ? std::optional(flush->status()) : std::nullopt;
}

std::string descriptionOf(const ISkeldaStreamMessage::Ref& message) {
  if (!message) return "(null)";
  if (platform::Log::showsValues()) return message->description();
  return fmt::format("<{}: {}, type = {}>", message->className(),
                     static_cast<const void*>(message.get()), message->frameType());
}

}  // namespace skelda
