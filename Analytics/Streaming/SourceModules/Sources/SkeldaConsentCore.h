#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "Analytics/Streaming/SourceModules/Sources/ISkeldaConsentObserver.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Platform.h"
#include "Skelda_Watch/SkeldaConsent.h"

/// One observer and the queue on which it is called; without a queue, the global one of background
/// priority. The observer is not kept alive.
struct SkeldaConsentObserverData {
  std::weak_ptr<ISkeldaConsentObserver> observer;
  platform::QueueRef queue;
};

/// Keeps the user's consent and tells who observes it. Guarded by one lock; any thread. It lives in
/// memory only.
class SkeldaConsentCore {
 public:
  /// What consentProvided() answers.
  enum Provided : std::int32_t { kNotProvided = 0, kInGDPRScope = 1, kNotInGDPRScope = 2 };

  static const std::shared_ptr<SkeldaConsentCore>& sharedInstance();

  /// Stores and announces the consent. False when the user is in scope and there are no strings; it
  /// counts all the same.
  bool updateUserConsent(const SkeldaConsent& consent);
  SkeldaConsent getConsent() const;
  std::int32_t consentProvided() const;
  /// An observer that comes after consent was given is told at once.
  void registerObserver(std::weak_ptr<ISkeldaConsentObserver> observer,
                        platform::QueueRef callbackQueue);
  /// Posts the call; returns before it has run.
  static void updateObserver(const SkeldaConsentObserverData& observer);

  SkeldaConsentCore() = default;

 private:
  mutable platform::Mutex mutex_;
  bool consentInfoProvided_ GUARDED_BY(mutex_) = false;
  SkeldaConsent consent_ GUARDED_BY(mutex_);
  std::vector<SkeldaConsentObserverData> observers_ GUARDED_BY(mutex_);
};
