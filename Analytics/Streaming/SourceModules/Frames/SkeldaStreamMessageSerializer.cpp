#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"

#include <bit>
#include <cstring>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameFormat.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"

namespace format = skelda::frameformat;

namespace {

bool isKnownFrameType(std::int32_t type) {
  return !SkeldaStreamFrameTypeUtil::classNameForFrameType(type).empty();
}

std::uint8_t firstByteOfVersion(std::int8_t version) {
  auto byte = static_cast<std::uint8_t>(version) & format::kVersionMask;
  if constexpr (std::endian::native == std::endian::big) byte |= format::kBigEndianFlag;
  return static_cast<std::uint8_t>(byte);
}

/// Numbers lie in the order of the host, which the first byte tells; the frame type is the one
/// whose order is fixed.
void writeHeader(char* header, const ISkeldaStreamMessage& message) {
  header[0] = static_cast<char>(firstByteOfVersion(message.frameVersion()));
  const auto type = static_cast<std::uint32_t>(message.frameType());
  for (unsigned byte = 0; byte < 3; ++byte) {
    header[format::kFrameTypeOffset + byte] = static_cast<char>(type >> (8 * byte));
  }
  const std::int64_t epoch = message.epochTimeStamp();
  const std::int64_t relative = message.relativeTimeStamp();
  std::memcpy(header + format::kEpochTimeStampOffset, &epoch, sizeof epoch);
  std::memcpy(header + format::kRelativeTimeStampOffset, &relative, sizeof relative);
}

}  // namespace

std::shared_ptr<SkeldaStreamMessageSerializer>
SkeldaStreamMessageSerializer::streamMessageSerializer() {
  return platform::makeCounted<SkeldaStreamMessageSerializer>();
}

bool SkeldaStreamMessageSerializer::hasRoomForPayload(std::uint64_t length,
                                                      std::int32_t frameType) {
  constexpr std::uint64_t kMost =
      format::kMaximumFrameLength - format::kHeaderLength - format::kFooterLength;
  if (length <= kMost) return length != 0;
  SKELDA_LOG(1, "{}: a payload of {} bytes is too long for a frame of type {} and is not written",
             "-[SkeldaStreamMessageSerializer frameFromStreamMessage:]", length, frameType);
  return false;
}

bool SkeldaStreamMessageSerializer::isValidStreamMessage(const ISkeldaStreamMessage& message) {
  if (!isKnownFrameType(message.frameType())) return false;
  std::string payload;
  return message.appendPayload(payload) && !payload.empty();
}

std::optional<platform::Data> SkeldaStreamMessageSerializer::frameFromStreamMessage(
    const ISkeldaStreamMessage& message) const {
  if (!isKnownFrameType(message.frameType())) return std::nullopt;

  std::string frame;
  frame.reserve(format::kHeaderLength + message.payloadLengthHint() + format::kFooterLength);
  frame.resize(format::kHeaderLength);
  if (!message.appendPayload(frame)) return std::nullopt;
  const std::uint64_t payloadLength = frame.size() - format::kHeaderLength;
  if (!hasRoomForPayload(payloadLength, message.frameType())) return std::nullopt;

  writeHeader(frame.data(), message);
  const auto length = static_cast<std::uint32_t>(payloadLength);
  std::memcpy(frame.data() + format::kPayloadLengthOffset, &length, sizeof length);

  // The whole number decides, not the four bits of it that the frame has room for: a message of
  // version 16 gets no footer.
  if (message.frameVersion() == format::kVersionWithFooter) {
    const std::int32_t crc = SkeldaUtil::dataChecksum(std::string_view(frame));
    char footer[format::kFooterLength];
    std::memcpy(footer, &crc, sizeof crc);
    frame.append(footer, sizeof footer);
  }
  return platform::Data(std::move(frame));
}
