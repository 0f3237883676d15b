#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivityProxy.h"

#include <atomic>
#include <utility>

#include "Analytics/Utils/SkeldaGuards.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/JSONWriter.h"

namespace {

constexpr std::string_view kReceived =
    "-[SkeldaWatchConnectivityProxy session:didReceiveUserInfo:]";
constexpr std::string_view kFinished =
    "-[SkeldaWatchConnectivityProxy session:didFinishUserInfoTransfer:error:]";

/// What the class of the host's last delegate answers, for when the object itself is gone.
/// Process-wide, as a class outlives its objects.
constinit std::atomic<unsigned> SkeldaWatchConnectivityRealClass{0};

}  // namespace

SkeldaWatchConnectivityProxy::SkeldaWatchConnectivityProxy(
    const platform::WCSession::DelegateRef& realObject, platform::QueueRef queue)
    : queue_(std::move(queue)), realObject_(realObject) {}

platform::WCSession::DelegateRef SkeldaWatchConnectivityProxy::realObject() const {
  const platform::MutexLock lock(mutex_);
  return realObject_.lock();
}

void SkeldaWatchConnectivityProxy::setRealObject(
    const platform::WCSession::DelegateRef& realObject) {
  if (realObject != nullptr) SkeldaWatchConnectivityRealClass = realObject->answeredCalls();
  const platform::MutexLock lock(mutex_);
  realObject_ = realObject;
}

void SkeldaWatchConnectivityProxy::setSdkDelegate(
    std::weak_ptr<ISkeldaWatchConnectivityReceiver> receiver) {
  const platform::MutexLock lock(mutex_);
  sdkDelegate_ = std::move(receiver);
}

std::shared_ptr<ISkeldaWatchConnectivityReceiver> SkeldaWatchConnectivityProxy::sdkDelegate()
    const {
  const platform::MutexLock lock(mutex_);
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
  const auto real = realObject();
  return kOwn | (real != nullptr ? real->answeredCalls() : SkeldaWatchConnectivityRealClass.load());
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
             description(), fmt::ptr(this), skelda::shownValue(platform::jsonText(userInfo)));
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
