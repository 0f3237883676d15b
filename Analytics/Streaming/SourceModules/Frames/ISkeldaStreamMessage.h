#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Analytics/Intake/Account/SkeldaIntakeTicket.h"
#include "Platform/Foundation/Data.h"
#include "Platform/Platform.h"

/// What flows through the pipeline: five properties, whoever holds them. A message is made and
/// filled on one queue, then handed on and only read, from any queue, without locks.
class ISkeldaStreamMessage {
 public:
  using Ref = std::shared_ptr<ISkeldaStreamMessage>;
  static constexpr std::string_view kProtocolName = "ISkeldaStreamMessage";

  virtual std::string_view className() const noexcept = 0;

  /// 1 for every entity; 0 asks the serializer for a CRC footer.
  virtual std::int8_t frameVersion() const noexcept = 0;
  virtual std::int32_t frameType() const noexcept = 0;
  /// Wall-clock time of the record, milliseconds since 1970-01-01 UTC.
  virtual std::int64_t epochTimeStamp() const noexcept = 0;
  /// System uptime at the record, milliseconds.
  virtual std::int64_t relativeTimeStamp() const noexcept = 0;
  /// The record in the intake journal that is settled once this message is in a frame, or dropped.
  virtual SkeldaIntakeTicket intakeTicket() const noexcept { return kSkeldaNoTicket; }
  /// The UTF-8 JSON text of the record; nothing where there is none to write.
  virtual std::optional<platform::Data> payload() const = 0;

  virtual void setFrameVersion(std::int8_t version) noexcept = 0;
  virtual void setFrameType(std::int32_t type) noexcept = 0;
  virtual void setEpochTimeStamp(std::int64_t milliseconds) noexcept = 0;
  virtual void setRelativeTimeStamp(std::int64_t milliseconds) noexcept = 0;
  virtual void setPayload(std::optional<platform::Data> payload) = 0;

  /// One line for the log. Not cheap: once per stage at most, and only when somebody reads.
  virtual std::string description() const = 0;

  /// Appends to `out` the bytes that payload() would return, without a copy in between; false, with
  /// `out` as it was, where payload() would return nothing.
  virtual bool appendPayload(std::string& out) const {
    const std::optional<platform::Data> bytes = payload();
    if (!bytes) return false;
    out.append(bytes->view());
    return true;
  }
  /// About how many bytes appendPayload() adds: what a caller should reserve.
  virtual std::size_t payloadLengthHint() const noexcept { return 512; }

 protected:
  ~ISkeldaStreamMessage() = default;
};
