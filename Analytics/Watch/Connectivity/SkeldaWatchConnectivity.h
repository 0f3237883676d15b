#pragma once

#include <memory>

#include "Analytics/Watch/Connectivity/ISkeldaWatchConnectivityReceiver.h"
#include "Analytics/Watch/Connectivity/SkeldaWatchConnectivityProxy.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Platform.h"
#include "Platform/WatchConnectivity/Session/WCSession.h"

/// Shares the phone session with the host: keeps a proxy in the place of the host's delegate,
/// whichever the host sets and whenever. Without the session component it is inert. Every public
/// call but defaultConnectivty() returns at once and works on the connectivity queue; nothing
/// throws.
class SkeldaWatchConnectivity : public std::enable_shared_from_this<SkeldaWatchConnectivity> {
 public:
  /// The one of the process ("Connectivty" is how the name goes).
  static const std::shared_ptr<SkeldaWatchConnectivity>& defaultConnectivty();
  /// One of its own, over the session that the class registry makes at this moment.
  static std::shared_ptr<SkeldaWatchConnectivity> connectivity();

  /// Installs the proxy, watches for other delegates, and activates the session.
  void setup();
  void transferUserInfo(platform::Dictionary userInfo);
  /// The agent's receiver, held weakly.
  void setDelegate(std::weak_ptr<ISkeldaWatchConnectivityReceiver> delegate);
  /// One-way: no set-up and no tracking of delegates any more. An installed proxy stays.
  void disableWatchConnectivity();

  const platform::QueueRef& queue() const { return queue_; }

  // -- Fixed by the system, and not called by the agent itself
  /// Gives the session back the host's delegate.
  void teardown();
  void disableTransferSkeldaInfo();

 private:
  SkeldaWatchConnectivity();

  // On the connectivity queue, those without the prefix too: their names are fixed.
  void onqueue_setup();
  void cacheAndReplaceSessionDelegate();
  void restoreCachedSessionDelegate();
  void setSessionDelegate(const platform::WCSession::DelegateRef& delegate, bool withKVOSetUp);
  void setupKVO();
  void removeKVO();
  void checkNewDelegate(const platform::WCSession::DelegateRef& delegate);

  /// Posts to the connectivity queue; what the block throws is reported and dropped.
  template <class F>
  void post(F&& block);

  const platform::QueueRef queue_;
  const std::shared_ptr<platform::WCSession> session_;
  const std::shared_ptr<SkeldaWatchConnectivityProxy> connectivityProxy_;
  platform::WCSession::Token observation_ = 0;
  bool disabled_ = false;
  bool disableTransferInfo_ = false;
  bool kvoSetup_ = false;
};
