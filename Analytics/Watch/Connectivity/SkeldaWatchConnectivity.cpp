#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivity.h"

#include <utility>

#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/ClassRegistry.h"

namespace {

constexpr std::string_view kInit = "-[SkeldaWatchConnectivity init]";
constexpr std::string_view kSetup = "-[SkeldaWatchConnectivity setup]";
constexpr std::string_view kCacheAndReplace =
    "-[SkeldaWatchConnectivity cacheAndReplaceSessionDelegate]";
constexpr std::string_view kCheckNewDelegate = "-[SkeldaWatchConnectivity checkNewDelegate:]";

/// By name and at run time: most programs do not link the component.
std::shared_ptr<platform::WCSession> defaultSession() {
  auto& registry = platform::ClassRegistry::shared();
  if (!registry.hasClass("WCSession")) {
    SKELDA_LOG(1,
               "{}: WatchConnectivity isn't linked, Skelda Analytics will be disabled for any "
               "paired watch",
               kInit);
    return nullptr;
  }
  return std::dynamic_pointer_cast<platform::WCSession>(registry.make("WCSession"));
}

}  // namespace

const std::shared_ptr<SkeldaWatchConnectivity>& SkeldaWatchConnectivity::defaultConnectivty() {
  static platform::NeverDestroyed<std::shared_ptr<SkeldaWatchConnectivity>> instance(
      connectivity());
  return *instance;
}

std::shared_ptr<SkeldaWatchConnectivity> SkeldaWatchConnectivity::connectivity() {
  return std::shared_ptr<SkeldaWatchConnectivity>(new SkeldaWatchConnectivity);
}

SkeldaWatchConnectivity::SkeldaWatchConnectivity()
    : queue_(platform::Queue::serial("com.skelda.watchconnectivity")),
      session_(defaultSession()),
      connectivityProxy_(platform::makeCounted<SkeldaWatchConnectivityProxy>(nullptr, queue_)) {}

template <class F>
void SkeldaWatchConnectivity::post(F&& block) {
  queue_->async(skelda::guarded(
      [self = shared_from_this(), block = std::forward<F>(block)]() mutable { block(*self); }));
}

void SkeldaWatchConnectivity::setup() {
  post([](SkeldaWatchConnectivity& self) { self.onqueue_setup(); });
}

void SkeldaWatchConnectivity::onqueue_setup() {
  SKELDA_ON_RAW_QUEUE(queue_);
  if (disabled_) {
    SKELDA_LOG(2, "{} disabled", kSetup);
    return;
  }
  if (session_ == nullptr) return;
  cacheAndReplaceSessionDelegate();
  setupKVO();
  session_->activateSession();
}

void SkeldaWatchConnectivity::teardown() {
  post([](SkeldaWatchConnectivity& self) {
    self.removeKVO();
    self.restoreCachedSessionDelegate();
  });
}

void SkeldaWatchConnectivity::transferUserInfo(platform::Dictionary userInfo) {
  post([userInfo = std::move(userInfo)](SkeldaWatchConnectivity& self) {
    if (!self.disableTransferInfo_ && self.session_ != nullptr)
      self.session_->transferUserInfo(userInfo);
  });
}

void SkeldaWatchConnectivity::setDelegate(
    std::weak_ptr<ISkeldaWatchConnectivityReceiver> delegate) {
  post([delegate = std::move(delegate)](SkeldaWatchConnectivity& self) {
    self.connectivityProxy_->setSdkDelegate(delegate);
  });
}

void SkeldaWatchConnectivity::disableWatchConnectivity() {
  post([](SkeldaWatchConnectivity& self) { self.disabled_ = true; });
}

void SkeldaWatchConnectivity::disableTransferSkeldaInfo() {
  post([](SkeldaWatchConnectivity& self) { self.disableTransferInfo_ = true; });
}

void SkeldaWatchConnectivity::cacheAndReplaceSessionDelegate() {
  SKELDA_ON_RAW_QUEUE(queue_);
  SkeldaUtil::assertThreadIsNotMain();
  if (disabled_) {
    SKELDA_LOG(2, "{} disabled", kCacheAndReplace);
    return;
  }
  const auto current = session_->delegate();
  if (current == connectivityProxy_) return;
  connectivityProxy_->setRealObject(current);
  setSessionDelegate(connectivityProxy_, true);
}

void SkeldaWatchConnectivity::restoreCachedSessionDelegate() {
  SKELDA_ON_RAW_QUEUE(queue_);
  if (session_ == nullptr) return;
  session_->setDelegate(connectivityProxy_->realObject());
  connectivityProxy_->setRealObject(nullptr);
}

void SkeldaWatchConnectivity::setSessionDelegate(const platform::WCSession::DelegateRef& delegate,
                                                 bool withKVOSetUp) {
  SKELDA_ON_RAW_QUEUE(queue_);
  // The agent's own change is not to be observed.
  removeKVO();
  session_->setDelegate(delegate);
  if (!withKVOSetUp) return;
  setupKVO();
  // The host may have set a delegate while nobody was looking.
  const auto current = session_->delegate();
  if (current != delegate)
    post([current](SkeldaWatchConnectivity& self) { self.checkNewDelegate(current); });
}

void SkeldaWatchConnectivity::setupKVO() {
  SKELDA_ON_RAW_QUEUE(queue_);
  SkeldaUtil::assertThreadIsNotMain();
  if (kvoSetup_) return;
  observation_ = session_->addDelegateObserver(
      [weak = weak_from_this()](const auto& /*old*/, const auto& delegate) {
        if (const auto self = weak.lock())
          self->post([delegate](SkeldaWatchConnectivity& connectivity) {
            connectivity.checkNewDelegate(delegate);
          });
      });
  kvoSetup_ = true;
}

void SkeldaWatchConnectivity::removeKVO() {
  SKELDA_ON_RAW_QUEUE(queue_);
  SkeldaUtil::assertThreadIsNotMain();
  if (!kvoSetup_) return;
  session_->removeDelegateObserver(observation_);
  kvoSetup_ = false;
}

void SkeldaWatchConnectivity::checkNewDelegate(const platform::WCSession::DelegateRef& delegate) {
  SKELDA_ON_RAW_QUEUE(queue_);
  if (disabled_) return;
  if (delegate == connectivityProxy_) {
    // The agent never sets its proxy while it observes; somebody else did.
    SkeldaUtil::assert_(false, kCheckNewDelegate);
    return;
  }
  if (delegate == connectivityProxy_->realObject()) {
    setSessionDelegate(connectivityProxy_, true);
  } else {
    cacheAndReplaceSessionDelegate();
  }
}
