#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>

/// The numbers of the frame format. A frame is a header of 24 bytes, a payload, and a CRC footer in
/// frames of version 0 only; docs/frame-log-format.md tells the whole story.
namespace skelda::frameformat {

inline constexpr std::size_t kHeaderLength = 24;
inline constexpr std::size_t kFooterLength = 4;

inline constexpr std::size_t kFrameTypeOffset = 1;
inline constexpr std::size_t kEpochTimeStampOffset = 4;
inline constexpr std::size_t kRelativeTimeStampOffset = 12;
inline constexpr std::size_t kPayloadLengthOffset = 20;

inline constexpr std::uint8_t kVersionMask = 0x0F;
inline constexpr std::uint8_t kBigEndianFlag = 0x80;
/// The one version whose frames carry a CRC footer.
inline constexpr std::uint8_t kVersionWithFooter = 0;
/// The version that every entity is made with.
inline constexpr std::int8_t kEntityVersion = 1;

/// What lies around the payload of a frame of that version.
constexpr std::size_t overheadOfVersion(unsigned version) noexcept {
  return version == kVersionWithFooter ? kHeaderLength + kFooterLength : kHeaderLength;
}

/// Lengths of frames are unsigned 32-bit; a frame whose total would not fit is not written, and
/// never counts as whole when it is read.
inline constexpr std::uint64_t kMaximumFrameLength = std::numeric_limits<std::uint32_t>::max();

}  // namespace skelda::frameformat
