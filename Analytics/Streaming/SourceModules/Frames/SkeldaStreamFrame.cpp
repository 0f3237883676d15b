#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrame.h"

#include <fmt/format.h>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Platform/Foundation/TextCoding.h"

std::optional<std::string_view> SkeldaStreamFrame::frameClass() const noexcept {
  const std::string_view name = SkeldaStreamFrameTypeUtil::classNameForFrameType(frameType_);
  return name.empty() ? std::nullopt : std::optional(name);
}

std::optional<std::string> SkeldaStreamFrame::payloadString() const {
  if (!platform::isValidUTF8(payloadView())) return std::nullopt;
  return std::string(payloadView());
}

std::string SkeldaStreamFrame::description() const {
  return fmt::format(
      "[SkeldaStreamFrame({}): type = [{}], typeClass = [{}], epoch timestamp = [{}], "
      "relative timestamp = [{}], crc = [{}], payload len = [{}], payload = {}, "
      "total len = [{}]]",
      static_cast<const void*>(this), frameType_, frameClass().value_or("(null)"), epochTimeStamp_,
      relativeTimeStamp_, crc32_, payloadView().size(), payloadString().value_or("(null)"),
      totalLength_);
}
