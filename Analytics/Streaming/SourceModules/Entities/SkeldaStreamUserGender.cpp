#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserGender.h"

#include <array>

#include "Platform/Base/Counted.h"

SkeldaStreamUserGender::SkeldaStreamUserGender(std::int32_t gender) : gender_(gender) {}

std::shared_ptr<SkeldaStreamUserGender> SkeldaStreamUserGender::userGenderWithGender(
    std::int32_t gender) {
  return platform::makeCounted<SkeldaStreamUserGender>(gender);
}

std::span<const SkeldaRecordField> SkeldaStreamUserGender::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamUserGender::gender_>("sk.demo.gender").required(),
  };
  return kFields;
}

bool SkeldaStreamUserGender::isValidModel() const {
  return gender_ >= -1 && gender_ <= 1;
}
