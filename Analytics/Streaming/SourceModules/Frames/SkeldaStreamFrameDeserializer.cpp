#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"

#include <algorithm>
#include <cstring>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameFormat.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaStreamErrorConstants.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"

namespace format = skelda::frameformat;

namespace {

constexpr std::string_view kStreamFrameFromData =
    "-[SkeldaStreamFrameDeserializer streamFrameFromData:bytesReadSoFar:error:]";
constexpr std::string_view kAllStreamFramesFromData =
    "-[SkeldaStreamFrameDeserializer allStreamFramesFromData:totalBytesRead:error:]";

/// In the order of this host: the byte-order flag of a frame is written but never honoured.
template <class T>
T numberAt(std::string_view data, std::size_t offset) {
  T number;
  std::memcpy(&number, data.data() + offset, sizeof number);
  return number;
}

std::uint8_t versionOf(std::string_view data) {
  return static_cast<std::uint8_t>(data[0]) & format::kVersionMask;
}

std::uint32_t typeOf(std::string_view data) {
  std::uint32_t type = 0;
  for (unsigned byte = 0; byte < 3; ++byte) {
    type |= std::uint32_t{static_cast<std::uint8_t>(data[format::kFrameTypeOffset + byte])}
            << (8 * byte);
  }
  return type;
}

}  // namespace

std::shared_ptr<SkeldaStreamFrameDeserializer>
SkeldaStreamFrameDeserializer::streamFrameDeserializer() {
  return platform::makeCounted<SkeldaStreamFrameDeserializer>();
}

bool SkeldaStreamFrameDeserializer::isAtLeastOneFrameInData(
    std::string_view data, std::uint32_t* totalBytesInFrame) const {
  if (data.size() < format::kHeaderLength) {
    if (totalBytesInFrame != nullptr) *totalBytesInFrame = 0;
    return false;
  }
  // In 64 bits: a hostile length must not wrap around into a small one.
  const std::uint64_t total =
      format::overheadOfVersion(versionOf(data)) +
      std::uint64_t{numberAt<std::uint32_t>(data, format::kPayloadLengthOffset)};
  if (totalBytesInFrame != nullptr) {
    *totalBytesInFrame = static_cast<std::uint32_t>(std::min(total, format::kMaximumFrameLength));
  }
  return total <= format::kMaximumFrameLength && total <= data.size();
}

SkeldaStreamFrame::Ref SkeldaStreamFrameDeserializer::streamFrameFromData(
    std::string_view data, std::size_t* bytesReadSoFar, platform::ErrorRef*,
    const std::shared_ptr<const std::string>& owner) const {
  // A count of its own: frames are the one thing that is made a million times in a loop.
  auto frame = std::make_shared<SkeldaStreamFrame>();
  const std::uint8_t version = versionOf(data);
  const auto payloadLength = numberAt<std::uint32_t>(data, format::kPayloadLengthOffset);
  frame->setFrameVersion(static_cast<std::int8_t>(version));
  frame->setFrameType(static_cast<std::int32_t>(typeOf(data)));
  frame->setEpochTimeStamp(numberAt<std::int64_t>(data, format::kEpochTimeStampOffset));
  frame->setRelativeTimeStamp(numberAt<std::int64_t>(data, format::kRelativeTimeStampOffset));
  const std::string_view payload = data.substr(format::kHeaderLength, payloadLength);
  if (owner != nullptr) {
    frame->setPayload(owner, payload);
  } else {
    frame->setPayload(platform::Data(std::string(payload)));
  }
  std::size_t consumed = format::kHeaderLength + payloadLength;
  if (version == format::kVersionWithFooter) {
    // Carried, not compared: a frame whose CRC is wrong is accepted as it stands.
    frame->setCrc32(numberAt<std::int32_t>(data, consumed));
    consumed += format::kFooterLength;
  }
  frame->setTotalLength(static_cast<std::uint32_t>(consumed));
  if (bytesReadSoFar != nullptr) {
    *bytesReadSoFar = consumed;
    SkeldaUtil::assert_(consumed <= data.size(), kStreamFrameFromData);
    SkeldaUtil::assert_(consumed == frame->totalLength(), kStreamFrameFromData);
  }
  return frame;
}

std::uint32_t SkeldaStreamFrameDeserializer::frameTypeFromData(std::string_view data,
                                                               platform::ErrorRef*) const {
  return typeOf(data);
}

// Not for what reads log after log: cold, for this file is compiled for speed.
[[gnu::cold]] std::vector<SkeldaStreamFrame::Ref>
SkeldaStreamFrameDeserializer::allStreamFramesFromData(std::string_view data,
                                                       std::size_t* totalBytesRead,
                                                       platform::ErrorRef* error) const {
  std::vector<SkeldaStreamFrame::Ref> frames;
  std::size_t total = 0;
  while (isAtLeastOneFrameInData(data.substr(total))) {
    std::size_t consumed = 0;
    platform::ErrorRef parsingError;
    SkeldaStreamFrame::Ref frame =
        streamFrameFromData(data.substr(total), &consumed, &parsingError);
    if (frame == nullptr || parsingError != nullptr) {
      SKELDA_LOG(1, "{}: parsing failed, frame = [{}], error = {}", kAllStreamFramesFromData,
                 frame ? frame->description() : "(null)", platform::description(parsingError));
      platform::setError(error, parsingError
                                    ? parsingError
                                    : SkeldaStreamErrorConstants::errorFor(
                                          SkeldaStreamErrorConstants::kDeserializeFailure));
      SkeldaUtil::assert_(false, kAllStreamFramesFromData);
      break;
    }
    frames.push_back(std::move(frame));
    total += consumed;
  }
  if (totalBytesRead != nullptr) *totalBytesRead = total;
  return frames;
}

std::size_t SkeldaStreamFrameDeserializer::lengthOfFrameHeader() const noexcept {
  return format::kHeaderLength;
}

std::size_t SkeldaStreamFrameDeserializer::lengthOfFrameFooter() const noexcept {
  return format::kFooterLength;
}

// For who debugs: cold as well.
[[gnu::cold]] void SkeldaStreamFrameDeserializer::debugLogFrameData(std::string_view data,
                                                                    std::string_view tag) const {
  if (!SkeldaUtil::logs(2)) return;
  SkeldaStreamFrame::Ref frame;
  platform::ErrorRef error;
  if (isAtLeastOneFrameInData(data)) frame = streamFrameFromData(data, nullptr, &error);
  if (frame != nullptr && error == nullptr) {
    SKELDA_LOG(2, "{}: {}", tag, frame->description());
  } else {
    SKELDA_LOG(2, "{}, conversion failed, frame = [{}], error = {}", tag,
               frame ? frame->description() : "(null)", platform::description(error));
  }
}
