#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppOrientation.h"

#include <array>

#include "Platform/Base/Counted.h"

SkeldaStreamAppOrientation::SkeldaStreamAppOrientation(std::int32_t orientation)
    : orientation_(orientation) {}

std::shared_ptr<SkeldaStreamAppOrientation>
SkeldaStreamAppOrientation::appOrientationWithOrientation(std::int32_t orientation) {
  return platform::makeCounted<SkeldaStreamAppOrientation>(orientation);
}

std::span<const SkeldaRecordField> SkeldaStreamAppOrientation::recordFields() noexcept {
  using Self = SkeldaStreamAppOrientation;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::orientation_>("sk.app.orientation").required(),
  };
  return kFields;
}
