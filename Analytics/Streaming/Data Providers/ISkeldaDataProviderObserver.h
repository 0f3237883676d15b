#pragma once

#include <memory>
#include <string_view>

class SkeldaDataProvider;

/// Is told when the facts of a data provider it registered with have changed.
class ISkeldaDataProviderObserver {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaDataProviderObserver";
  /// Called on the provider's queue: post to a queue of your own before doing any work.
  virtual void dataProviderDidUpdate(std::shared_ptr<SkeldaDataProvider> provider) = 0;

 protected:
  ~ISkeldaDataProviderObserver() = default;
};
