#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

namespace skelda::platform {

class WCSession;

/// One user info on its way to the peer. Immutable, any thread.
struct WCSessionUserInfoTransfer {
  Dictionary userInfo;
};

/// The calls of a session delegate, as bits.
enum WCSessionDelegateCall : unsigned {
  kWCActivationDidComplete = 1,
  kWCReachabilityDidChange = 2,
  kWCDidReceiveMessage = 4,
  kWCDidReceiveUserInfo = 8,
  kWCDidFinishUserInfoTransfer = 16,
  kWCAllDelegateCalls = 31,
};

/// Hears from a session, on a background thread, one call at a time and in order. Every call is
/// optional: the session makes only those that answeredCalls() names when the call is due.
class WCSessionDelegate : public Object {
 public:
  std::string_view className() const noexcept override { return "WCSessionDelegate"; }
  virtual unsigned answeredCalls() const { return kWCAllDelegateCalls; }

  /// session:activationDidCompleteWithState:error:
  virtual void sessionActivationDidComplete(WCSession&, bool /*activated*/, const ErrorRef&) {}
  /// sessionReachabilityDidChange: the peer came or went.
  virtual void sessionReachabilityDidChange(WCSession&) {}
  /// session:didReceiveMessage: what the peer sent while both were there.
  virtual void sessionDidReceiveMessage(WCSession&, const Dictionary& /*message*/) {}
  /// session:didReceiveUserInfo: what the peer queued.
  virtual void sessionDidReceiveUserInfo(WCSession&, const Dictionary& /*userInfo*/) {}
  /// session:didFinishUserInfoTransfer:error: the peer has it, or it never will.
  virtual void sessionDidFinishUserInfoTransfer(WCSession&, const WCSessionUserInfoTransfer&,
                                                const ErrorRef&) {}
};

/// The link to the paired phone. Nothing but an interface, so that a program that does not link
/// the component carries nothing of it: the default session is what the class registry makes of
/// the name "WCSession", and null where sessions are not supported. Any thread.
class WCSession : public Object {
 public:
  using DelegateRef = std::shared_ptr<WCSessionDelegate>;
  /// Told of a new delegate, on the thread that set it, after it is in place.
  using DelegateObserver =
      std::function<void(const DelegateRef& oldDelegate, const DelegateRef& newDelegate)>;
  using Token = std::uint64_t;

  std::string_view className() const noexcept override { return "WCSession"; }

  /// The session itself, for a call that is dealt with after the delegate has returned.
  virtual std::shared_ptr<WCSession> retainedSelf() = 0;
  /// Opens the link; the delegate hears how it went. Activating again only tells it once more.
  virtual void activateSession() = 0;
  virtual bool isReachable() const = 0;
  /// Held weakly, as whoever sets it owns it. A call on its way to the old delegate still arrives.
  virtual void setDelegate(const DelegateRef& delegate) = 0;
  virtual DelegateRef delegate() const = 0;
  virtual Token addDelegateObserver(DelegateObserver observer) = 0;
  virtual void removeDelegateObserver(Token token) = 0;
  /// Queues a user info; it waits for a peer that is away, and for one that goes away before it
  /// has acknowledged. Delivered in order, at least once.
  virtual void transferUserInfo(const Dictionary& userInfo) = 0;

  // For the host, whose phone it is: the agent calls none of this.

  /// Sends at once; false when the peer is not there.
  virtual bool sendMessage(const Dictionary& message) = 0;
};

}  // namespace skelda::platform
