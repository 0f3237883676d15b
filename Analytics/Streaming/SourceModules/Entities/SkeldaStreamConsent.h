#pragma once

#include <memory>
#include <optional>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The user's consent as the host told it.
class SkeldaStreamConsent final : public SkeldaStreamRecordOf<SkeldaStreamConsent> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamConsent";
  static constexpr bool kReachesNoLog = true;

  SkeldaStreamConsent() = default;
  SkeldaStreamConsent(bool gdprScope, std::optional<platform::Dictionary> consentStrings);
  static std::shared_ptr<SkeldaStreamConsent> gdprScope(
      bool gdprScope, std::optional<platform::Dictionary> consentStrings);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  bool isGdprScope() const noexcept { return gdprScope_; }
  const std::optional<platform::Dictionary>& consentStrings() const noexcept {
    return consentStrings_;
  }

 private:
  bool gdprScope_ = false;
  std::optional<platform::Dictionary> consentStrings_;
};
