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
  asyncBlock([self = selfOf(this)] { self->onqueue_notifyObservers(); });
}

void SkeldaDataProvider::registerObserver(std::shared_ptr<ISkeldaDataProviderObserver> observer) {
  asyncBlock([self = selfOf(this), observer = std::move(observer)] {
    self->onqueue_registerObserver(observer);
  });
}

void SkeldaDataProvider::removeObserver(std::shared_ptr<ISkeldaDataProviderObserver> observer) {
  asyncBlock([self = selfOf(this), observer = std::move(observer)] {
    self->onqueue_removeObserver(observer);
  });
}

void SkeldaDataProvider::onqueue_registerObserver(
    const std::shared_ptr<ISkeldaDataProviderObserver>& observer) {
  if (observer == nullptr) return;
  observers_.insert(observer);
  // A late observer gets the current facts at once, and one that registers again gets them again.
  if (canSendData()) observer->dataProviderDidUpdate(selfOf(this));
}

void SkeldaDataProvider::onqueue_removeObserver(
    const std::shared_ptr<ISkeldaDataProviderObserver>& observer) {
  observers_.erase(observer);
}

void SkeldaDataProvider::onqueue_notifyObservers() {
  for (const auto& observer : observers_) observer->dataProviderDidUpdate(selfOf(this));
}
