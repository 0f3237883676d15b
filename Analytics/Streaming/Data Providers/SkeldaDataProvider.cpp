#include "Analytics/Streaming/Data Providers/SkeldaDataProvider.h"

#include <utility>

#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/Exception.h"

SkeldaDataProvider::SkeldaDataProvider(std::string description)
    : SkeldaActor(std::move(description)) {}

std::shared_ptr<SkeldaDataProvider> SkeldaDataProvider::getInstance() {
  platform::abortOnFailedAssertion("0");
}

void SkeldaDataProvider::startup() {
  SkeldaUtil::assert_(false, "-[SkeldaDataProvider startup]");
}

void SkeldaDataProvider::notifyObservers() {
  post<&SkeldaDataProvider::onqueue_notifyObservers>();
}

void SkeldaDataProvider::registerObserver(std::shared_ptr<ISkeldaDataProviderObserver> observer) {
  post<&SkeldaDataProvider::onqueue_registerObserver>(std::move(observer));
}

void SkeldaDataProvider::removeObserver(std::shared_ptr<ISkeldaDataProviderObserver> observer) {
  post<&SkeldaDataProvider::onqueue_removeObserver>(std::move(observer));
}

void SkeldaDataProvider::onqueue_registerObserver(
    const std::shared_ptr<ISkeldaDataProviderObserver>& observer) {
  SKELDA_ON_QUEUE();
  if (observer == nullptr) return;
  observers_.insert(observer);
  // A late observer gets the current facts at once, and one that registers again gets them again.
  if (canSendData()) observer->dataProviderDidUpdate(selfOf(this));
}

void SkeldaDataProvider::onqueue_removeObserver(
    const std::shared_ptr<ISkeldaDataProviderObserver>& observer) {
  SKELDA_ON_QUEUE();
  observers_.erase(observer);
}

void SkeldaDataProvider::onqueue_notifyObservers() {
  SKELDA_ON_QUEUE();
  for (const auto& observer : observers_) observer->dataProviderDidUpdate(selfOf(this));
}
