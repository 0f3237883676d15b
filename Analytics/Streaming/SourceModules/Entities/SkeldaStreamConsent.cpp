#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamConsent.h"

#include <array>
#include <utility>

#include "Platform/Base/Counted.h"

SkeldaStreamConsent::SkeldaStreamConsent(bool gdprScope,
                                         std::optional<platform::Dictionary> consentStrings)
    : gdprScope_(gdprScope), consentStrings_(std::move(consentStrings)) {}

std::shared_ptr<SkeldaStreamConsent> SkeldaStreamConsent::gdprScope(
    bool gdprScope, std::optional<platform::Dictionary> consentStrings) {
  return platform::makeCounted<SkeldaStreamConsent>(gdprScope, std::move(consentStrings));
}

std::span<const SkeldaRecordField> SkeldaStreamConsent::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamConsent::gdprScope_>("sk.consent.isGdprScope"),
      SkeldaRecordField::of<&SkeldaStreamConsent::consentStrings_>("sk.consent.strings").required(),
  };
  return kFields;
}
