#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessage.h"

#include <fmt/format.h>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrame.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Platform/Base/Counted.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

template <class Source>
std::shared_ptr<SkeldaStreamMessage> messageWithStampsOf(const Source& source) {
  auto message = platform::makeCounted<SkeldaStreamMessage>();
  message->setFrameVersion(source.frameVersion());
  message->setFrameType(source.frameType());
  message->setEpochTimeStamp(source.epochTimeStamp());
  message->setRelativeTimeStamp(source.relativeTimeStamp());
  return message;
}

}  // namespace

std::shared_ptr<SkeldaStreamMessage> SkeldaStreamMessage::streamMessageFromFrame(
    const SkeldaStreamFrame& frame) {
  auto message = messageWithStampsOf(frame);
  message->setPayload(frame.payload());
  return message;
}

std::shared_ptr<SkeldaStreamMessage> SkeldaStreamMessage::streamMessageFromFrame(
    SkeldaStreamFrame&& frame) {
  auto message = messageWithStampsOf(frame);
  message->setPayload(std::move(frame).payload());
  return message;
}

std::shared_ptr<SkeldaStreamMessage> SkeldaStreamMessage::streamMessageFromFrame(
    const ISkeldaStreamMessage& source) {
  auto message = messageWithStampsOf(source);
  message->setPayload(source.payload());
  return message;
}

std::string SkeldaStreamMessage::description() const {
  const std::string_view typeClass = SkeldaStreamFrameTypeUtil::classNameForFrameType(frameType_);
  const bool isText = payload_ && platform::isValidUTF8(payload_->view());
  // The text ends with the payload: whoever reads these lines knows them without a last bracket.
  return fmt::format(
      "[{}({}): type = [{}], typeClass = [{}], version = [{}], EpochTimeStamp = [{}], "
      "RelativeTimeStamp = [{}], payload len = [{}] payload = {}",
      className(), static_cast<const void*>(this), frameType_,
      typeClass.empty() ? "(null)" : typeClass, frameVersion_, epochTimeStamp_, relativeTimeStamp_,
      payload_ ? payload_->length() : 0, isText ? payload_->view() : "(null)");
}

bool SkeldaStreamMessage::appendPayload(std::string& out) const {
  if (!payload_) return false;
  out.append(payload_->view());
  return true;
}
