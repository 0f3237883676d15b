#include "Skelda_Watch/SkeldaConsent.h"

#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentCore.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaHostText.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Watch/SkeldaPublicEntry.h"
#include "Platform/Foundation/TextCoding.h"

bool SkeldaConsent::updateConsentInformation(const SkeldaConsent& consent) noexcept {
  return skelda::effectiveEntry(false, [&] {
    for (const auto& [framework, text] : consent.consentStrings_) {
      if (text.text() == nullptr || !platform::isValidUTF8(framework) ||
          !skelda::isWellFormedText(text)) {
        SKELDA_LOG(0, "Skelda: Consent not updated -- consent strings must be UTF-8 text.");
        return false;
      }
    }
    // The answer is the store's, which is in memory: what is kept is for a start after a kill.
    const bool taken = SkeldaConsentCore::sharedInstance()->updateUserConsent(consent);
    const platform::Value scope(consent.isGDPRScope_), strings(consent.consentStrings_),
        legitContractInterestNecessity(consent.isLICNEnabled_);
    skelda::keepChoice(SkeldaIntakeCall::Kind::consent,
                       {scope, strings, legitContractInterestNecessity});
    return taken;
  });
}

SkeldaConsent SkeldaConsent::getConsent() noexcept {
  return skelda::publicEntry(SkeldaConsent(),
                             [] { return SkeldaConsentCore::sharedInstance()->getConsent(); });
}
