#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"

#include <utility>

#include "Platform/Base/NeverDestroyed.h"

SkeldaNetworkURLsDataProvider::SkeldaNetworkURLsDataProvider()
    : SkeldaActor(std::string(kClassName)), internalAnalyticsServerURL_(kDefaultServerURL) {}

std::shared_ptr<SkeldaNetworkURLsDataProvider> SkeldaNetworkURLsDataProvider::sharedInstance() {
  static platform::NeverDestroyed<std::shared_ptr<SkeldaNetworkURLsDataProvider>> instance(
      made(new SkeldaNetworkURLsDataProvider()));
  return *instance;
}

void SkeldaNetworkURLsDataProvider::setServerURL(std::string url) {
  asyncBlock([self = selfOf(this), url = std::move(url)]() mutable {
    self->internalAnalyticsServerURL_ = std::move(url);
  });
}

std::string SkeldaNetworkURLsDataProvider::serverURL() {
  std::string url;
  syncBlock([&] { url = internalAnalyticsServerURL_; });
  return url;
}
