#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The user's gender: 1 male, 0 female, -1 unknown; valid within these.
class SkeldaStreamUserGender final : public SkeldaStreamRecordOf<SkeldaStreamUserGender> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamUserGender";
  static constexpr bool kReachesNoLog = true;

  SkeldaStreamUserGender() = default;
  explicit SkeldaStreamUserGender(std::int32_t gender);
  static std::shared_ptr<SkeldaStreamUserGender> userGenderWithGender(std::int32_t gender);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  bool isValidModel() const override;
  std::int32_t gender() const noexcept { return gender_; }

 private:
  std::int32_t gender_ = 0;
};
