#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The current locale. Valid when both parts are set.
class SkeldaStreamLocaleInfo final : public SkeldaStreamRecordOf<SkeldaStreamLocaleInfo> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamLocaleInfo";

  SkeldaStreamLocaleInfo() = default;
  SkeldaStreamLocaleInfo(std::optional<std::string> country, std::optional<std::string> language);
  static std::shared_ptr<SkeldaStreamLocaleInfo> streamLocaleInfoWithCountry(
      std::optional<std::string> country, std::optional<std::string> language);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  const std::optional<std::string>& localeCountry() const noexcept { return localeCountry_; }
  const std::optional<std::string>& localeLanguage() const noexcept { return localeLanguage_; }

 private:
  std::optional<std::string> localeCountry_;
  std::optional<std::string> localeLanguage_;
};
