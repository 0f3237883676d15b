#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The current time zone. Valid when set.
class SkeldaStreamTimeZoneInfo final : public SkeldaStreamRecordOf<SkeldaStreamTimeZoneInfo> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamTimeZoneInfo";

  SkeldaStreamTimeZoneInfo() = default;
  explicit SkeldaStreamTimeZoneInfo(std::optional<std::string> timeZone);
  static std::shared_ptr<SkeldaStreamTimeZoneInfo> streamTimeZoneInfoWithTimeZone(
      std::optional<std::string> timeZone);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  const std::optional<std::string>& timeZoneValue() const noexcept { return timeZoneValue_; }

 private:
  std::optional<std::string> timeZoneValue_;
};
