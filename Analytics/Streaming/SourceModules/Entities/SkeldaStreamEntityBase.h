#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Analytics/Streaming/SourceModules/Entities/ISkeldaStreamEntity.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/Object.h"

/// What every entity has in common: the stamps of its making, and a payload that is its JSON text.
///
/// The payload is computed whenever it is asked for; nothing is cached, so that an entity that has
/// been handed on can be read from any queue.
// The message first: nearly all calls come through it, and a record's table holds them once.
class SkeldaStreamEntityBase : public ISkeldaStreamEntity, public platform::Object {
 public:
  static constexpr std::int32_t kNoFrameType = 0;

  std::string_view className() const noexcept override = 0;
  std::int8_t frameVersion() const noexcept override { return frameVersion_; }
  std::int32_t frameType() const noexcept override { return frameType_; }
  std::int64_t epochTimeStamp() const noexcept override { return epochTimeStamp_; }
  std::int64_t relativeTimeStamp() const noexcept override { return relativeTimeStamp_; }
  SkeldaIntakeTicket intakeTicket() const noexcept override { return intakeTicket_; }
  void setFrameVersion(std::int8_t version) noexcept override { frameVersion_ = version; }
  void setFrameType(std::int32_t type) noexcept override { frameType_ = type; }
  void setEpochTimeStamp(std::int64_t ms) noexcept override { epochTimeStamp_ = ms; }
  void setRelativeTimeStamp(std::int64_t ms) noexcept override { relativeTimeStamp_ = ms; }

  /// Takes over the ticket and the times of the host's call; without a ticket, nothing.
  virtual void takeOrigin(const SkeldaIntakeOrigin& origin) noexcept;

  std::optional<platform::Data> payload() const override;
  /// Without effect: the next reading computes the payload from the record all the same.
  void setPayload(std::optional<platform::Data>) override {}
  bool appendPayload(std::string& out) const override;

  /// Abstract: aborts the process where a class does not say.
  std::optional<platform::Dictionary> dictionaryRepresentation() const override;
  std::optional<std::string> jsonRepresentation() const override;
  /// Indented JSON with its line feeds turned into blanks, so that it fits on one line of the log.
  std::optional<std::string> jsonRepresentationForDebug() const;
  std::string description() const override;

 protected:
  /// Stamps both times, version 1, and the frame type: kNoFrameType for what never becomes a frame.
  explicit SkeldaStreamEntityBase(std::int32_t frameType);
  /// A copy keeps the stamps of its source. No host's call stands behind what is copied.
  SkeldaStreamEntityBase(const SkeldaStreamEntityBase&) = default;
  SkeldaStreamEntityBase& operator=(const SkeldaStreamEntityBase&) = default;

  /// Writes the record as one JSON object; false, with nothing written, where it is not valid. By
  /// default goes through dictionaryRepresentation().
  virtual bool writeJSON(platform::JSONWriter& writer) const;

 private:
  std::int8_t frameVersion_;
  std::int32_t frameType_;
  std::int64_t epochTimeStamp_;
  std::int64_t relativeTimeStamp_;
  SkeldaIntakeTicket intakeTicket_ = kSkeldaNoTicket;
};
