#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentSource.h"

#include <utility>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamConsent.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentCore.h"

void SkeldaConsentSource::onqueue_startup() {
  SkeldaConsentCore::sharedInstance()->registerObserver(selfOf(this), nullptr);
}

void SkeldaConsentSource::consentUpdated() {
  asyncBlock([self = selfOf(this)] {
    self->onqueue_setConsent(SkeldaConsentCore::sharedInstance()->getConsent());
  });
}

void SkeldaConsentSource::setConsent(SkeldaConsent consent) {
  asyncBlock(
      [self = selfOf(this), consent = std::move(consent)] { self->onqueue_setConsent(consent); });
}

void SkeldaConsentSource::onqueue_setConsent(const SkeldaConsent& consent) {
  onqueue_streamMessage(
      SkeldaStreamConsent::gdprScope(consent.isGDPRScope(), consent.consentStrings()));
}
