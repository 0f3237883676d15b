#pragma once

#include <memory>
#include <string_view>

#include "Analytics/Streaming/Data Providers/ISkeldaDataProviderObserver.h"

/// An observable holder of facts. Every operation is safe from any thread and returns at once.
class ISkeldaDataProvider {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaDataProvider";
  virtual void startup() = 0;
  virtual void notifyObservers() = 0;
  /// The observer is held until it is removed. It is told at once when there are facts already.
  virtual void registerObserver(std::shared_ptr<ISkeldaDataProviderObserver> observer) = 0;
  virtual void removeObserver(std::shared_ptr<ISkeldaDataProviderObserver> observer) = 0;

 protected:
  ~ISkeldaDataProvider() = default;
};
