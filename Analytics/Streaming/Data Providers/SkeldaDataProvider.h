#pragma once

#include <set>
#include <string>

#include "Analytics/Streaming/Data Providers/ISkeldaDataProvider.h"
#include "Analytics/Utils/SkeldaActor/SkeldaActor.h"
#include "Platform/Platform.h"

/// What the data providers have in common: the observers, kept and told on the provider's queue.
/// A concrete provider adds its facts, canSendData(), startup() and a static getInstance().
class SkeldaDataProvider : public SkeldaActor, public ISkeldaDataProvider {
 public:
  /// A provider is made by its own class; asking the base for one ends the process.
  [[noreturn]] static std::shared_ptr<SkeldaDataProvider> getInstance();

  void startup() override;
  void notifyObservers() final;
  void registerObserver(std::shared_ptr<ISkeldaDataProviderObserver> observer) final;
  void removeObserver(std::shared_ptr<ISkeldaDataProviderObserver> observer) final;

 protected:
  explicit SkeldaDataProvider(std::string description);

  /// Whether there are facts for an observer that registers now.
  virtual bool canSendData() const { return false; }
  void onqueue_registerObserver(const std::shared_ptr<ISkeldaDataProviderObserver>& observer);
  void onqueue_removeObserver(const std::shared_ptr<ISkeldaDataProviderObserver>& observer);
  void onqueue_notifyObservers();

 private:
  std::set<std::shared_ptr<ISkeldaDataProviderObserver>> observers_;
};
