#pragma once

#include "Analytics/Streaming/SourceModules/Sources/ISkeldaConsentObserver.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"
#include "Skelda_Watch/SkeldaConsent.h"

/// Turns changes of consent into consent messages.
class ISkeldaConsentSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaConsentSource";
  /// Any thread, returns at once.
  virtual void setConsent(SkeldaConsent consent) = 0;
};

/// Observes the consent store from its start-up on. The manager does not start it, and consent
/// messages have no frame type: consent stays in memory.
class SkeldaConsentSource : public SkeldaSource<SkeldaConsentSource, ISkeldaConsentSource>,
                            public ISkeldaConsentObserver {
 public:
  static constexpr std::string_view kClassName = "SkeldaConsentSource";
  void consentUpdated() override;
  void setConsent(SkeldaConsent consent) override;

 private:
  friend SkeldaSource;
  SkeldaConsentSource() = default;
  void onqueue_startup() override;
  void onqueue_consentUpdated();
  void onqueue_setConsent(const SkeldaConsent& consent);
};
