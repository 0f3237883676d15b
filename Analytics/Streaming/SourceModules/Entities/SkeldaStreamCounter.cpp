#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCounter.h"

#include <array>

#include "Platform/Base/Counted.h"

SkeldaStreamCounter::SkeldaStreamCounter(std::int32_t counter) : frameCounter_(counter) {}

std::shared_ptr<SkeldaStreamCounter> SkeldaStreamCounter::counterFrameWithCounter(
    std::int32_t counter) {
  return platform::makeCounted<SkeldaStreamCounter>(counter);
}

std::span<const SkeldaRecordField> SkeldaStreamCounter::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamCounter::frameCounter_>("sk.frame.log.counter"),
  };
  return kFields;
}
