#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentCore.h"

#include <utility>

#include "Analytics/Utils/SkeldaGuards.h"
#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"

const std::shared_ptr<SkeldaConsentCore>& SkeldaConsentCore::sharedInstance() {
  static platform::NeverDestroyed<std::shared_ptr<SkeldaConsentCore>> instance(
      platform::makeCounted<SkeldaConsentCore>());
  return *instance;
}

bool SkeldaConsentCore::updateUserConsent(const SkeldaConsent& consent) {
  const platform::MutexLock lock(mutex_);
  consent_ = consent;
  consentInfoProvided_ = true;
  std::erase_if(observers_, [](const auto& entry) { return entry.observer.expired(); });
  for (const auto& observer : observers_) updateObserver(observer);
  return !(consent.isGDPRScope() && consent.consentStrings().empty());
}

SkeldaConsent SkeldaConsentCore::getConsent() const {
  const platform::MutexLock lock(mutex_);
  return consent_;
}

std::int32_t SkeldaConsentCore::consentProvided() const {
  const platform::MutexLock lock(mutex_);
  if (!consentInfoProvided_) return kNotProvided;
  return consent_.isGDPRScope() ? kInGDPRScope : kNotInGDPRScope;
}

void SkeldaConsentCore::registerObserver(std::weak_ptr<ISkeldaConsentObserver> observer,
                                         platform::QueueRef callbackQueue) {
  const platform::MutexLock lock(mutex_);
  SkeldaConsentObserverData entry{std::move(observer), std::move(callbackQueue)};
  if (consentInfoProvided_) updateObserver(entry);
  observers_.push_back(std::move(entry));
}

void SkeldaConsentCore::updateObserver(const SkeldaConsentObserverData& observer) {
  const auto& queue = observer.queue
                          ? observer.queue
                          : platform::Queue::global(platform::Queue::Priority::background);
  queue->async(skelda::guarded([weak = observer.observer] {
    if (const auto alive = weak.lock()) alive->consentUpdated();
  }));
}
