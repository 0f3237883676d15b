#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserBirthdate.h"

#include <array>

#include "Platform/Base/Counted.h"

SkeldaStreamUserBirthdate::SkeldaStreamUserBirthdate(std::optional<platform::Date> date)
    : birthdate_(date) {}

std::shared_ptr<SkeldaStreamUserBirthdate> SkeldaStreamUserBirthdate::userBirthdateWithDate(
    std::optional<platform::Date> date) {
  return platform::makeCounted<SkeldaStreamUserBirthdate>(date);
}

std::span<const SkeldaRecordField> SkeldaStreamUserBirthdate::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamUserBirthdate::birthdate_>("sk.demo.birthdate").required(),
  };
  return kFields;
}
