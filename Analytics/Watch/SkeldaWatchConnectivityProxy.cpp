#include "Analytics/Watch/SkeldaWatchConnectivityProxy.h"

#include <utility>

#include "Analytics/Utils/SkeldaActor/SkeldaGuardedBlock.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/JSONWriter.h"

namespace {

constexpr std::string_view kReceived =
    "-[SkeldaWatchConnectivityProxy session:didReceiveUserInfo:]";
constexpr std::string_view kFinished =
    "-[SkeldaWatchConnectivityProxy session:didFinishUserInfoTransfer:error:]";

/// Process-wide, as a delegate's class outlives the delegate.
std::mutex realClassMutex;
SkeldaWatchConnectivityRealClass& realClass() {
  static auto* const instance = new SkeldaWatchConnectivityRealClass;
  return *instance;
}

}  // namespace

SkeldaWatchConnectivityProxy::SkeldaWatchConnectivityProxy(
    const platform::WCSession::DelegateRef& realObject, platform::QueueRef queue)
    : queue_(std::move(queue)), realObject_(realObject) {}

platform::WCSession::DelegateRef SkeldaWatchConnectivityProxy::realObject() const {
  std::lock_guard lock(mutex_);
  return realObject_.lock();
}

void SkeldaWatchConnectivityProxy::setRealObject(
    const platform::WCSession::DelegateRef& realObject) {
  if (realObject != nullptr) {
    SkeldaWatchConnectivityRealClass description{std::string(realObject->className()),
                                                 realObject->answeredCalls()};
    std::lock_guard lock(realClassMutex);
    realClass() = std::move(description);
  }
  std::lock_guard lock(mutex_);
  realObject_ = realObject;
}

void SkeldaWatchConnectivityProxy::setSdkDelegate(
    std::weak_ptr<ISkeldaWatchConnectivityReceiver> receiver) {
  std::lock_guard lock(mutex_);
  sdkDelegate_ = std::move(receiver);
}

std::shared_ptr<ISkeldaWatchConnectivityReceiver> SkeldaWatchConnectivityProxy::sdkDelegate()
    const {
  std::lock_guard lock(mutex_);
  return sdkDelegate_.lock();
}

bool SkeldaWatchConnectivityProxy::isSkeldaMsg(const platform::Dictionary& userInfo) {
  for (const auto key : {kIOSVendorIDKey, kIOSInstallationIDKey, kWatchOSResponseKey})
    if (userInfo.contains(key)) return true;
  return false;
}

std::string SkeldaWatchConnectivityProxy::description() const {
  const auto real = realObject();
  return real != nullptr ? std::string(real->className()) : "(null)";
}

unsigned SkeldaWatchConnectivityProxy::answeredCalls() const {
  constexpr unsigned kOwn =
      platform::kWCDidReceiveUserInfo | platform::kWCDidFinishUserInfoTransfer;
  if (const auto real = realObject()) return kOwn | real->answeredCalls();
  std::lock_guard lock(realClassMutex);
  return kOwn | realClass().answeredCalls;
}

platform::WCSession::DelegateRef SkeldaWatchConnectivityProxy::realObjectAnswering(
    platform::WCSessionDelegateCall call) const {
  auto real = realObject();
  return real != nullptr && (real->answeredCalls() & call) != 0 ? real : nullptr;
}

void SkeldaWatchConnectivityProxy::sessionActivationDidComplete(platform::WCSession& session,
                                                                bool activated,
                                                                const platform::ErrorRef& error) {
  if (const auto real = realObjectAnswering(platform::kWCActivationDidComplete))
    real->sessionActivationDidComplete(session, activated, error);
}

void SkeldaWatchConnectivityProxy::sessionReachabilityDidChange(platform::WCSession& session) {
  if (const auto real = realObjectAnswering(platform::kWCReachabilityDidChange))
    real->sessionReachabilityDidChange(session);
}

void SkeldaWatchConnectivityProxy::sessionDidReceiveMessage(platform::WCSession& session,
                                                            const platform::Dictionary& message) {
  if (const auto real = realObjectAnswering(platform::kWCDidReceiveMessage))
    real->sessionDidReceiveMessage(session, message);
}

void SkeldaWatchConnectivityProxy::logForwarding(std::string_view method,
                                                 const platform::Dictionary& userInfo) const {
  // "do not forward" is always 0 by here; the line has it all the same.
  SKELDA_LOG(2, "{}, do not forward {}, real object {}, self {}, userInfo {}", method, 0,
             description(), fmt::ptr(this), platform::jsonText(userInfo));
}

void SkeldaWatchConnectivityProxy::sessionDidReceiveUserInfo(platform::WCSession& session,
                                                             const platform::Dictionary& userInfo) {
  queue_->async(
      skelda::guarded([self = shared_from_this(), session = session.retainedSelf(), userInfo] {
        if (const auto receiver = self->sdkDelegate()) receiver->didReceiveUserInfo(userInfo);
        if (isSkeldaMsg(userInfo)) return;
        self->logForwarding(kReceived, userInfo);
        if (const auto real = self->realObjectAnswering(platform::kWCDidReceiveUserInfo))
          real->sessionDidReceiveUserInfo(*session, userInfo);
      }));
}

void SkeldaWatchConnectivityProxy::sessionDidFinishUserInfoTransfer(
    platform::WCSession& session, const platform::WCSessionUserInfoTransfer& transfer,
    const platform::ErrorRef& error) {
  queue_->async(skelda::guarded(
      [self = shared_from_this(), session = session.retainedSelf(), transfer, error] {
        const auto receiver = self->sdkDelegate();
        if (receiver != nullptr && receiver->isSkeldaUserInfo(transfer.userInfo)) return;
        if (isSkeldaMsg(transfer.userInfo)) return;
        self->logForwarding(kFinished, transfer.userInfo);
        if (const auto real = self->realObjectAnswering(platform::kWCDidFinishUserInfoTransfer))
          real->sessionDidFinishUserInfoTransfer(*session, transfer, error);
      }));
}
