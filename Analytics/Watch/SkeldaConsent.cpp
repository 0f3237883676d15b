#include "Skelda_Watch/SkeldaConsent.h"

#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentCore.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaHostText.h"
#include "Analytics/Watch/SkeldaPublicEntry.h"
#include "Platform/Foundation/TextCoding.h"

bool SkeldaConsent::updateConsentInformation(const SkeldaConsent& consent) noexcept {
  return skelda::publicEntry(false, [&] {
    for (const auto& [framework, text] : consent.consentStrings_) {
      if (text.text() == nullptr || !platform::isValidUTF8(framework) ||
          !skelda::isWellFormedText(text)) {
        SKELDA_LOG(0, "Skelda: Consent not updated -- consent strings must be UTF-8 text.");
        return false;
      }
    }
    return SkeldaConsentCore::sharedInstance()->updateUserConsent(consent);
  });
}

SkeldaConsent SkeldaConsent::getConsent() noexcept {
  return skelda::publicEntry(SkeldaConsent(),
                             [] { return SkeldaConsentCore::sharedInstance()->getConsent(); });
}
