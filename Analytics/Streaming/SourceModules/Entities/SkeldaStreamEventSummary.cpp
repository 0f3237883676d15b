#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEventSummary.h"

#include <array>

#include "Platform/Base/Counted.h"

SkeldaStreamEventSummary::SkeldaStreamEventSummary(std::uint32_t eventCount, bool setComplete)
    : eventCount_(eventCount), setComplete_(setComplete) {}

std::shared_ptr<SkeldaStreamEventSummary> SkeldaStreamEventSummary::streamWithEventCount(
    std::uint32_t eventCount, bool setComplete) {
  return platform::makeCounted<SkeldaStreamEventSummary>(eventCount, setComplete);
}

std::span<const SkeldaRecordField> SkeldaStreamEventSummary::recordFields() noexcept {
  using Self = SkeldaStreamEventSummary;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::eventCount_>("sk.event.count").required(),
      SkeldaRecordField::of<&Self::setComplete_>("sk.event.set.complete").required(),
  };
  return kFields;
}
