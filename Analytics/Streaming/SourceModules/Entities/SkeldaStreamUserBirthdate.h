#pragma once

#include <memory>
#include <optional>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The user's birth date. Valid when set.
class SkeldaStreamUserBirthdate final : public SkeldaStreamRecordOf<SkeldaStreamUserBirthdate> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamUserBirthdate";
  static constexpr bool kReachesNoLog = true;

  SkeldaStreamUserBirthdate() = default;
  explicit SkeldaStreamUserBirthdate(std::optional<platform::Date> date);
  static std::shared_ptr<SkeldaStreamUserBirthdate> userBirthdateWithDate(
      std::optional<platform::Date> date);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  const std::optional<platform::Date>& birthdate() const noexcept { return birthdate_; }

 private:
  std::optional<platform::Date> birthdate_;
};
