#pragma once

#include <utility>

#include "Platform/Base/Export.h"
#include "SkeldaValue.h"

/// What the user has consented to: whether they are in scope of the GDPR, and consent strings by
/// the name of the framework they belong to. A value.
///
/// The agent keeps consent in memory and tells its own observers; it writes it to no log and sends
/// it nowhere. What a process said that was killed before the agent had heard it is the next one's
/// consent, until that one says its own.
class SKELDA_EXPORT SkeldaConsent {
 public:
  /// Out of scope, and nothing consented to.
  SkeldaConsent() = default;
  SkeldaConsent(bool isGDPRScope, SkeldaDictionary consentStrings, bool isLICNEnabled = false)
      : isGDPRScope_(isGDPRScope),
        consentStrings_(std::move(consentStrings)),
        isLICNEnabled_(isLICNEnabled) {}

  /// What it was made of.
  bool isGDPRScope() const noexcept { return isGDPRScope_; }
  const SkeldaDictionary& consentStrings() const noexcept { return consentStrings_; }
  /// Legitimate contract interest necessity.
  bool isLICNEnabled() const noexcept { return isLICNEnabled_; }

  /// Replaces the current consent. False when the user is in scope and there are no strings (the
  /// consent counts all the same), and false, with a log line, when it was refused: from inside a
  /// log sink, or for a string that is not UTF-8 text. Any thread, never throws.
  static bool updateConsentInformation(const SkeldaConsent& consent) noexcept;
  /// The current consent; out of scope and empty at first. Any thread, never throws.
  static SkeldaConsent getConsent() noexcept;

 private:
  bool isGDPRScope_ = false;
  SkeldaDictionary consentStrings_;
  bool isLICNEnabled_ = false;
};
