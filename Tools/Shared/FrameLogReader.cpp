#include "Tools/Shared/FrameLogReader.h"

#include <fmt/format.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameFormat.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Tools/Shared/Crc32.h"

namespace skelda::tools {
namespace {

constexpr std::uint8_t kReservedBits =
    static_cast<std::uint8_t>(~(frameformat::kVersionMask | frameformat::kBigEndianFlag));

template <class T>
T numberAt(const char* header, std::size_t offset) {
  T number;
  std::memcpy(&number, header + offset, sizeof number);
  return number;
}

void readHeader(const char* header, FrameRecord& frame) {
  const auto first = static_cast<std::uint8_t>(header[0]);
  frame.version = first & frameformat::kVersionMask;
  frame.isBigEndian = (first & frameformat::kBigEndianFlag) != 0;
  frame.type = 0;
  for (unsigned byte = 0; byte < 3; ++byte) {
    frame.type |= static_cast<std::uint8_t>(header[frameformat::kFrameTypeOffset + byte])
                  << (8 * byte);
  }
  frame.className = SkeldaStreamFrameTypeUtil::classNameForFrameType(frame.type);
  frame.epochTimeStamp = numberAt<std::int64_t>(header, frameformat::kEpochTimeStampOffset);
  frame.relativeTimeStamp = numberAt<std::int64_t>(header, frameformat::kRelativeTimeStampOffset);
  frame.payloadLength = numberAt<std::uint32_t>(header, frameformat::kPayloadLengthOffset);
  frame.hasCrc = frame.version == frameformat::kVersionWithFooter;
}

}  // namespace

FrameLogReader::FrameLogReader(int fd, std::size_t payloadLimit, std::function<void()> beforeRead)
    : fd_(fd),
      payloadLimit_(payloadLimit),
      beforeRead_(std::move(beforeRead)),
      buffer_(std::make_unique<char[]>(kBufferLength)) {}

FrameLogReader::FrameLogReader(std::string_view log)
    : fd_(-1), payloadLimit_(log.size()), ahead_(log) {}

FrameLogReader::Result FrameLogReader::next(FrameRecord& frame) {
  frameOffset_ = position_;
  char header[frameformat::kHeaderLength];
  if (!takeAll(header, sizeof header)) {
    if (error_ == 0 && position_ == frameOffset_) return Result::end;
    return incomplete(sizeof header);
  }

  frame = FrameRecord{};
  frame.offset = frameOffset_;
  readHeader(header, frame);
  if ((static_cast<std::uint8_t>(header[0]) & kReservedBits) != 0) {
    problem_ = fmt::format("first byte {:#04x}: bits 4 to 6 must be 0",
                           static_cast<std::uint8_t>(header[0]));
    return Result::damaged;
  }
  if (frame.payloadLength == 0) {
    problem_ = "a payload of length 0";
    return Result::damaged;
  }

  const std::uint64_t wanted =
      frameformat::overheadOfVersion(frame.version) + std::uint64_t{frame.payloadLength};
  Crc32 crc;
  if (frame.hasCrc) crc.add({header, sizeof header});
  if (!takePayload(frame, crc)) return incomplete(wanted);
  if (frame.hasCrc) {
    char footer[frameformat::kFooterLength];
    if (!takeAll(footer, sizeof footer)) return incomplete(wanted);
    frame.storedCrc = numberAt<std::uint32_t>(footer, 0);
    frame.computedCrc = crc.value();
  }
  return Result::frame;
}

bool FrameLogReader::takePayload(FrameRecord& frame, Crc32& crc) {
  std::uint64_t left = frame.payloadLength;
  while (left > 0) {
    const std::string_view piece = take(static_cast<std::size_t>(left));
    if (piece.empty()) return false;
    if (frame.hasCrc) crc.add(piece);
    frame.payload.append(piece.substr(0, payloadLimit_ - frame.payload.size()));
    left -= piece.size();
  }
  return true;
}

FrameLogReader::Result FrameLogReader::incomplete(std::uint64_t wanted) {
  if (error_ != 0) return Result::failed;
  problem_ = fmt::format("{} of {} bytes", position_ - frameOffset_, wanted);
  return Result::torn;
}

bool FrameLogReader::takeAll(char* out, std::size_t length) {
  while (length > 0) {
    const std::string_view piece = take(length);
    if (piece.empty()) return false;
    std::memcpy(out, piece.data(), piece.size());
    out += piece.size();
    length -= piece.size();
  }
  return true;
}

std::string_view FrameLogReader::take(std::size_t length) {
  if (ahead_.empty()) {
    if (fd_ < 0) return {};
    if (beforeRead_) beforeRead_();
    ssize_t got = 0;
    while ((got = ::read(fd_, buffer_.get(), kBufferLength)) < 0) {
      if (errno == EAGAIN) {
        pollfd readable{fd_, POLLIN, 0};
        ::poll(&readable, 1, -1);
      } else if (errno != EINTR) {
        break;
      }
    }
    if (got < 0) error_ = errno;
    if (got <= 0) return {};
    ahead_ = {buffer_.get(), static_cast<std::size_t>(got)};
  }
  const std::string_view piece = ahead_.substr(0, length);
  ahead_.remove_prefix(piece.size());
  position_ += piece.size();
  return piece;
}

}  // namespace skelda::tools
