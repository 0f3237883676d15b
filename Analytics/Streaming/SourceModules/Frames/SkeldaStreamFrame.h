#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Platform.h"

/// One decoded frame. A plain value; the stored CRC is carried, never compared.
///
/// A frame of an iterator has its payload in the bytes that it was read with, and keeps those
/// alive: what the iterator buffers, or the rest of one log where a frame is longer than that. Who
/// keeps payloads for long takes payload(), and lets the frame go.
class SkeldaStreamFrame final : public platform::Object {
 public:
  using Ref = std::shared_ptr<SkeldaStreamFrame>;
  static constexpr std::string_view kClassName = "SkeldaStreamFrame";

  std::string_view className() const noexcept override { return kClassName; }

  std::int8_t frameVersion() const noexcept { return frameVersion_; }
  std::int32_t frameType() const noexcept { return frameType_; }
  std::int64_t epochTimeStamp() const noexcept { return epochTimeStamp_; }
  std::int64_t relativeTimeStamp() const noexcept { return relativeTimeStamp_; }
  /// The payload's bytes for themselves.
  platform::Data payload() const& { return platform::Data(std::string(payloadView())); }
  platform::Data payload() && {
    return shared_ ? platform::Data(std::string(view_)) : std::move(payload_);
  }
  /// The same where they lie; as long as the frame is there and unchanged.
  std::string_view payloadView() const noexcept { return shared_ ? view_ : payload_.view(); }
  /// As stored, in frames of version 0; 0 in all others.
  std::int32_t crc32() const noexcept { return crc32_; }
  /// The bytes that the frame took up in what it was read from.
  std::uint32_t totalLength() const noexcept { return totalLength_; }

  void setFrameVersion(std::int8_t version) noexcept { frameVersion_ = version; }
  void setFrameType(std::int32_t type) noexcept { frameType_ = type; }
  void setEpochTimeStamp(std::int64_t milliseconds) noexcept { epochTimeStamp_ = milliseconds; }
  void setRelativeTimeStamp(std::int64_t milliseconds) noexcept {
    relativeTimeStamp_ = milliseconds;
  }
  void setPayload(platform::Data payload) noexcept {
    payload_ = std::move(payload);
    shared_ = nullptr;
  }
  /// A part of bytes that nobody changes any more.
  void setPayload(std::shared_ptr<const std::string> bytes, std::string_view part) noexcept {
    shared_ = std::move(bytes);
    view_ = part;
  }
  void setCrc32(std::int32_t crc) noexcept { crc32_ = crc; }
  void setTotalLength(std::uint32_t length) noexcept { totalLength_ = length; }

  /// The entity class of the frame's type; nothing for a type that has none.
  std::optional<std::string_view> frameClass() const noexcept;
  /// The payload as text; nothing where it is not UTF-8.
  std::optional<std::string> payloadString() const;
  std::string description() const;

 private:
  std::int8_t frameVersion_ = 0;
  std::int32_t frameType_ = 0;
  std::int32_t crc32_ = 0;
  std::uint32_t totalLength_ = 0;
  std::int64_t epochTimeStamp_ = 0;
  std::int64_t relativeTimeStamp_ = 0;
  platform::Data payload_;
  std::shared_ptr<const std::string> shared_;  // where the payload is, if not in `payload_`
  std::string_view view_;
};
