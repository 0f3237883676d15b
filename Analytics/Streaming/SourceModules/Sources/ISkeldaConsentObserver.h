#pragma once

#include <string_view>

/// Is told when the user's consent has changed.
class ISkeldaConsentObserver {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaConsentObserver";
  /// Called on the queue that was given at registration, never on the thread that changed it.
  virtual void consentUpdated() = 0;

 protected:
  ~ISkeldaConsentObserver() = default;
};
