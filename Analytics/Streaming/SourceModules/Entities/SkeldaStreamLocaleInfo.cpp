#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamLocaleInfo.h"

#include <array>
#include <utility>

#include "Platform/Base/Counted.h"

SkeldaStreamLocaleInfo::SkeldaStreamLocaleInfo(std::optional<std::string> country,
                                               std::optional<std::string> language)
    : localeCountry_(std::move(country)), localeLanguage_(std::move(language)) {}

std::shared_ptr<SkeldaStreamLocaleInfo> SkeldaStreamLocaleInfo::streamLocaleInfoWithCountry(
    std::optional<std::string> country, std::optional<std::string> language) {
  return platform::makeCounted<SkeldaStreamLocaleInfo>(std::move(country), std::move(language));
}

std::span<const SkeldaRecordField> SkeldaStreamLocaleInfo::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamLocaleInfo::localeCountry_>("sk.country").required(),
      SkeldaRecordField::of<&SkeldaStreamLocaleInfo::localeLanguage_>("sk.language").required(),
  };
  return kFields;
}
