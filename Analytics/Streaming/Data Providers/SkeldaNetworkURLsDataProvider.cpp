#include "Analytics/Streaming/Data Providers/SkeldaNetworkURLsDataProvider.h"

#include <strings.h>

#include <utility>

#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/URLSession.h"

bool SkeldaNetworkURLsDataProvider::isAbsoluteHTTPAddress(const std::string& url) {
  const std::string scheme = url.substr(0, url.find(':'));
  return (::strcasecmp(scheme.c_str(), "http") == 0 ||
          ::strcasecmp(scheme.c_str(), "https") == 0) &&
         platform::isWellFormedURL(url);
}

SkeldaNetworkURLsDataProvider::SkeldaNetworkURLsDataProvider()
    : SkeldaActor(std::string(kClassName)), internalAnalyticsServerURL_(kDefaultServerURL) {}

std::shared_ptr<SkeldaNetworkURLsDataProvider> SkeldaNetworkURLsDataProvider::sharedInstance() {
  static platform::NeverDestroyed<std::shared_ptr<SkeldaNetworkURLsDataProvider>> instance(
      made(new SkeldaNetworkURLsDataProvider()));
  return *instance;
}

void SkeldaNetworkURLsDataProvider::setServerURL(std::string url) {
  if (!isAbsoluteHTTPAddress(url)) {
    SKELDA_NOTICE("Skelda: \"{}\" is no absolute http or https address, nothing can be sent there",
                  url);
  }
  asyncBlock([self = selfOf(this), url = std::move(url)]() mutable {
    self->internalAnalyticsServerURL_ = std::move(url);
  });
}

std::string SkeldaNetworkURLsDataProvider::serverURL() {
  std::string url;
  syncBlock([&] { url = internalAnalyticsServerURL_; });
  return url;
}
