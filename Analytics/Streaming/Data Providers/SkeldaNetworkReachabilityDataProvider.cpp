#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"

#include <utility>

#include "Analytics/Streaming/Data Providers/ISkeldaReachability.h"
#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/ClassRegistry.h"

SkeldaNetworkReachabilityDataProvider::SkeldaNetworkReachabilityDataProvider()
    : SkeldaDataProvider(std::string(kClassName)) {}

std::shared_ptr<SkeldaNetworkReachabilityDataProvider>
SkeldaNetworkReachabilityDataProvider::sharedInstance() {
  static platform::NeverDestroyed<std::shared_ptr<SkeldaNetworkReachabilityDataProvider>> instance(
      made(new SkeldaNetworkReachabilityDataProvider()));
  return *instance;
}

std::shared_ptr<SkeldaNetworkReachabilityDataProvider>
SkeldaNetworkReachabilityDataProvider::getInstance() {
  return sharedInstance();
}

const platform::ErrorDomain& SkeldaNetworkReachabilityDataProvider::networkErrorDomain() {
  static platform::NeverDestroyed<platform::ErrorDomain> domain(
      platform::makeErrorDomain("kCFErrorDomainCFNetwork"));
  return *domain;
}

void SkeldaNetworkReachabilityDataProvider::startup() {
  post<&SkeldaNetworkReachabilityDataProvider::onqueue_startup>();
}

void SkeldaNetworkReachabilityDataProvider::setLastNetworkOperationError(platform::ErrorRef error) {
  asyncBlock([self = selfOf(this), error = std::move(error)] {
    self->lastNetworkOperationError_ = error;
  });
}

platform::ErrorRef SkeldaNetworkReachabilityDataProvider::lastNetworkOperationError() {
  platform::ErrorRef error;
  syncBlock([&] { error = lastNetworkOperationError_; });
  return error;
}

void SkeldaNetworkReachabilityDataProvider::setNetworkLikelyNotReachable() {
  asyncBlock([self = selfOf(this)] {
    // Not posted again, so that a read from the caller's thread sees it.
    self->lastNetworkOperationError_ =
        platform::makeCounted<const platform::Error>(networkErrorDomain(), 1);
  });
}

bool SkeldaNetworkReachabilityDataProvider::isNetworkLikelyNotReachable() {
  bool likelyNot = false;
  syncBlock([&] {
    likelyNot =
        !connectedToNetwork_ || (lastNetworkOperationError_ != nullptr &&
                                 lastNetworkOperationError_->hasDomain(networkErrorDomain()));
  });
  return likelyNot;
}

bool SkeldaNetworkReachabilityDataProvider::isNetworkReachable() {
  bool reachable = false;
  syncBlock([&] { reachable = connectedToNetwork_; });
  return reachable;
}

std::int32_t SkeldaNetworkReachabilityDataProvider::networkStatus() {
  std::int32_t status = 0;
  syncBlock([&] { status = internalNetworkStatus_; });
  return status;
}

void SkeldaNetworkReachabilityDataProvider::setConnectedToNetwork(bool connected) {
  asyncBlock([self = selfOf(this), connected] { self->connectedToNetwork_ = connected; });
}

void SkeldaNetworkReachabilityDataProvider::setInternalNetworkStatus(std::int32_t status) {
  asyncBlock([self = selfOf(this), status] { self->internalNetworkStatus_ = status; });
}

void SkeldaNetworkReachabilityDataProvider::setReachabilitySetup(bool setup) {
  asyncBlock([self = selfOf(this), setup] { self->reachabilitySetup_ = setup; });
}

bool SkeldaNetworkReachabilityDataProvider::reachabilitySetup() {
  bool setup = false;
  syncBlock([&] { setup = reachabilitySetup_; });
  return setup;
}

void SkeldaNetworkReachabilityDataProvider::setReachability(platform::ObjectRef monitor) {
  asyncBlock(
      [self = selfOf(this), monitor = std::move(monitor)] { self->reachability_ = monitor; });
}

platform::ObjectRef SkeldaNetworkReachabilityDataProvider::reachability() {
  platform::ObjectRef monitor;
  syncBlock([&] { monitor = reachability_; });
  return monitor;
}

void SkeldaNetworkReachabilityDataProvider::onqueue_startup() {
  SKELDA_ON_QUEUE();
  onqueue_startMonitor();
  notifyObservers();
}

void SkeldaNetworkReachabilityDataProvider::onqueue_startMonitor() {
  SKELDA_ON_QUEUE();
  if (reachability_ != nullptr) return;
  auto monitor = platform::ClassRegistry::shared().make(ISkeldaReachability::kClassName);
  auto startable = std::dynamic_pointer_cast<ISkeldaReachability>(monitor);
  if (startable == nullptr) return;
  reachability_ = std::move(monitor);
  startable->startup();
}
