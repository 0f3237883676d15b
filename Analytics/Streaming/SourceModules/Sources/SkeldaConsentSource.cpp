#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentSource.h"

#include <utility>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamConsent.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentCore.h"

void SkeldaConsentSource::onqueue_startup() {
  SKELDA_ON_QUEUE();
  SkeldaConsentCore::sharedInstance()->registerObserver(selfOf(this), nullptr);
}

void SkeldaConsentSource::consentUpdated() {
  post<&SkeldaConsentSource::onqueue_consentUpdated>();
}

void SkeldaConsentSource::setConsent(SkeldaConsent consent) {
  post<&SkeldaConsentSource::onqueue_setConsent>(std::move(consent));
}

void SkeldaConsentSource::onqueue_consentUpdated() {
  SKELDA_ON_QUEUE();
  onqueue_setConsent(SkeldaConsentCore::sharedInstance()->getConsent());
}

void SkeldaConsentSource::onqueue_setConsent(const SkeldaConsent& consent) {
  SKELDA_ON_QUEUE();
  onqueue_streamMessage(
      SkeldaStreamConsent::gdprScope(consent.isGDPRScope(), consent.consentStrings()));
}
