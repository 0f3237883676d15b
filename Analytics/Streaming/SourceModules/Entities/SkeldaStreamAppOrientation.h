#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// How the application's screen is turned.
class SkeldaStreamAppOrientation final : public SkeldaStreamRecordOf<SkeldaStreamAppOrientation> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamAppOrientation";

  SkeldaStreamAppOrientation() = default;
  explicit SkeldaStreamAppOrientation(std::int32_t orientation);
  static std::shared_ptr<SkeldaStreamAppOrientation> appOrientationWithOrientation(
      std::int32_t orientation);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  std::int32_t orientation() const noexcept { return orientation_; }

 private:
  std::int32_t orientation_ = 0;
};
