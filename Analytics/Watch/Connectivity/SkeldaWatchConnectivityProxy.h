#pragma once

#include <memory>
#include <string>

#include "Analytics/Watch/Connectivity/ISkeldaWatchConnectivityReceiver.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Platform.h"
#include "Platform/WatchConnectivity/Session/WCSession.h"

/// Stands in the place of the host's session delegate: gives the agent's receiver every user info,
/// keeps the agent's own from the host, and passes everything else on to the host's delegate. Both
/// are held weakly; either may be gone. Any thread.
class SkeldaWatchConnectivityProxy final
    : public platform::WCSessionDelegate,
      public std::enable_shared_from_this<SkeldaWatchConnectivityProxy> {
 public:
  /// `queue` is where received and finished user infos are dealt with.
  SkeldaWatchConnectivityProxy(const platform::WCSession::DelegateRef& realObject,
                               platform::QueueRef queue);

  platform::WCSession::DelegateRef realObject() const;
  void setRealObject(const platform::WCSession::DelegateRef& realObject);
  void setSdkDelegate(std::weak_ptr<ISkeldaWatchConnectivityReceiver> receiver);

  /// Whether any key of the user info is one of the agent's three.
  static bool isSkeldaMsg(const platform::Dictionary& userInfo);

  std::string_view className() const noexcept override { return "SkeldaWatchConnectivityProxy"; }
  /// The real object's own, so that a log shows the host's class.
  std::string description() const;

  /// What the host's delegate answers, and the two calls that the agent needs itself.
  unsigned answeredCalls() const override;
  void sessionActivationDidComplete(platform::WCSession& session, bool activated,
                                    const platform::ErrorRef& error) override;
  void sessionReachabilityDidChange(platform::WCSession& session) override;
  void sessionDidReceiveMessage(platform::WCSession& session,
                                const platform::Dictionary& message) override;
  void sessionDidReceiveUserInfo(platform::WCSession& session,
                                 const platform::Dictionary& userInfo) override;
  void sessionDidFinishUserInfoTransfer(platform::WCSession& session,
                                        const platform::WCSessionUserInfoTransfer& transfer,
                                        const platform::ErrorRef& error) override;

 private:
  std::shared_ptr<ISkeldaWatchConnectivityReceiver> sdkDelegate() const;
  /// The real object when it is there and answers the call.
  platform::WCSession::DelegateRef realObjectAnswering(platform::WCSessionDelegateCall call) const;
  void logForwarding(std::string_view method, const platform::Dictionary& userInfo) const;

  const platform::QueueRef queue_;
  mutable platform::Mutex mutex_;  // the session reads the two on its own thread
  std::weak_ptr<platform::WCSessionDelegate> realObject_ GUARDED_BY(mutex_);
  std::weak_ptr<ISkeldaWatchConnectivityReceiver> sdkDelegate_ GUARDED_BY(mutex_);
};
