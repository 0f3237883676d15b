#include "Analytics/Streaming/Core/StreamComponent/SkeldaMessageTrace.h"

#include <fmt/format.h>

#include <utility>

#include "Platform/Base/Log.h"
#include "Platform/Platform.h"

namespace {

// The innermost trace that is open on this thread: a synchronous call into another stage opens one
// inside another.
thread_local SkeldaMessageTrace* innermost = nullptr;

}  // namespace

SkeldaMessageTrace::SkeldaMessageTrace(const ISkeldaStreamMessage::Ref& message) noexcept
    : message_(message.get()), outer_(std::exchange(innermost, this)) {}

SkeldaMessageTrace::~SkeldaMessageTrace() {
  innermost = outer_;
}

std::string SkeldaMessageTrace::description(const ISkeldaStreamMessage::Ref& message) {
  if (!message) return "(null)";
  if (!platform::Log::showsValues()) {
    return fmt::format("<{}: {}, type = {}>", message->className(),
                       static_cast<const void*>(message.get()), message->frameType());
  }
  if (innermost == nullptr || innermost->message_ != message.get()) return message->description();
  if (!innermost->text_) innermost->text_ = message->description();
  return *innermost->text_;
}
