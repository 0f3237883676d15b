#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamMessage.h"
#include "Platform/Foundation/Object.h"

class SkeldaStreamFrame;

/// The plain carrier of the five properties, for a message rebuilt from a decoded frame.
class SkeldaStreamMessage : public ISkeldaStreamMessage, public platform::Object {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamMessage";

  SkeldaStreamMessage() = default;
  /// Copies the five properties of a frame, or of any other message. The frame that is no longer
  /// needed gives its payload away.
  static std::shared_ptr<SkeldaStreamMessage> streamMessageFromFrame(
      const SkeldaStreamFrame& frame);
  static std::shared_ptr<SkeldaStreamMessage> streamMessageFromFrame(SkeldaStreamFrame&& frame);
  static std::shared_ptr<SkeldaStreamMessage> streamMessageFromFrame(
      const ISkeldaStreamMessage& message);

  std::string_view className() const noexcept override { return kClassName; }
  std::int8_t frameVersion() const noexcept override { return frameVersion_; }
  std::int32_t frameType() const noexcept override { return frameType_; }
  std::int64_t epochTimeStamp() const noexcept override { return epochTimeStamp_; }
  std::int64_t relativeTimeStamp() const noexcept override { return relativeTimeStamp_; }
  std::optional<platform::Data> payload() const override { return payload_; }

  void setFrameVersion(std::int8_t version) noexcept override { frameVersion_ = version; }
  void setFrameType(std::int32_t type) noexcept override { frameType_ = type; }
  void setEpochTimeStamp(std::int64_t ms) noexcept override { epochTimeStamp_ = ms; }
  void setRelativeTimeStamp(std::int64_t ms) noexcept override { relativeTimeStamp_ = ms; }
  void setPayload(std::optional<platform::Data> payload) override { payload_ = std::move(payload); }

  std::string description() const override;
  bool appendPayload(std::string& out) const override;
  std::size_t payloadLengthHint() const noexcept override {
    return payload_ ? payload_->length() : 0;
  }

 private:
  std::int8_t frameVersion_ = 0;
  std::int32_t frameType_ = 0;
  std::int64_t epochTimeStamp_ = 0;
  std::int64_t relativeTimeStamp_ = 0;
  std::optional<platform::Data> payload_;
};
