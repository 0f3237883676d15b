#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamTimeZoneInfo.h"

#include <array>
#include <utility>

#include "Platform/Base/Counted.h"

SkeldaStreamTimeZoneInfo::SkeldaStreamTimeZoneInfo(std::optional<std::string> timeZone)
    : timeZoneValue_(std::move(timeZone)) {}

std::shared_ptr<SkeldaStreamTimeZoneInfo> SkeldaStreamTimeZoneInfo::streamTimeZoneInfoWithTimeZone(
    std::optional<std::string> timeZone) {
  return platform::makeCounted<SkeldaStreamTimeZoneInfo>(std::move(timeZone));
}

std::span<const SkeldaRecordField> SkeldaStreamTimeZoneInfo::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamTimeZoneInfo::timeZoneValue_>("sk.timezone.value")
          .required(),
  };
  return kFields;
}
