#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"

#include <utility>

SkeldaNetworkURLsDataProvider::SkeldaNetworkURLsDataProvider()
    : SkeldaActor(std::string(kClassName)), internalAnalyticsServerURL_(kDefaultServerURL) {}

std::shared_ptr<SkeldaNetworkURLsDataProvider> SkeldaNetworkURLsDataProvider::sharedInstance() {
  static const auto& instance = *new std::shared_ptr(made(new SkeldaNetworkURLsDataProvider()));
  return instance;
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
