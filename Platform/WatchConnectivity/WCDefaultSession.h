#pragma once

#include <atomic>
#include <list>
#include <map>
#include <memory>

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/WatchConnectivity/Session/WCSession.h"
#include "Platform/WatchConnectivity/WCPacket.h"
#include "Platform/WatchConnectivity/WCTransport.h"

namespace skelda::platform {

/// The session over a transport. Everything but the delegate and its observers belongs to one
/// serial queue, on which the delegate is called as well.
class WCDefaultSession final : public WCSession,
                               public std::enable_shared_from_this<WCDefaultSession> {
 public:
  static std::shared_ptr<WCDefaultSession> make(std::shared_ptr<WCTransport> transport);

  std::shared_ptr<WCSession> retainedSelf() override { return shared_from_this(); }
  void activateSession() override;
  bool isReachable() const override { return reachable_; }
  void setDelegate(const DelegateRef& delegate) override;
  DelegateRef delegate() const override;
  Token addDelegateObserver(DelegateObserver observer) override;
  void removeDelegateObserver(Token token) override;
  void transferUserInfo(const Dictionary& userInfo) override;
  bool sendMessage(const Dictionary& message) override;

 private:
  struct Outgoing {
    std::uint64_t identifier;
    WCSessionUserInfoTransfer transfer;
  };

  explicit WCDefaultSession(std::shared_ptr<WCTransport> transport);

  void onqueue_activate();
  void onqueue_peerDidChange(bool there);
  void onqueue_didReceive(const Data& bytes);
  void onqueue_transferUserInfo(const Dictionary& userInfo);
  void onqueue_didAcknowledge(std::uint64_t identifier);
  void onqueue_handOver();
  /// Takes a transfer off the list and tells how it ended.
  void onqueue_finish(std::list<Outgoing>::iterator place, const ErrorRef& error);
  /// Makes one delegate call, if the delegate answers it; what it throws ends here.
  template <class F>
  void onqueue_tell(WCSessionDelegateCall call, F&& make);

  const std::shared_ptr<WCTransport> transport_;
  const QueueRef queue_;
  bool opened_ = false;
  std::uint64_t lastIdentifier_ = 0;
  std::list<Outgoing> outgoing_;
  // Those in front of it wait for their acknowledgement.
  std::list<Outgoing>::iterator next_ = outgoing_.end();
  std::atomic<bool> reachable_{false};

  mutable Mutex mutex_;
  std::weak_ptr<WCSessionDelegate> delegate_ GUARDED_BY(mutex_);
  std::map<Token, DelegateObserver> observers_ GUARDED_BY(mutex_);
  Token lastToken_ GUARDED_BY(mutex_) = 0;
};

/// Gives the process a paired phone: from here on the class registry finds "WCSession", and its
/// default session speaks over `transport`. What a host calls, before its first event, to have the
/// component at all.
void installWatchConnectivity(std::shared_ptr<WCTransport> transport);

}  // namespace skelda::platform
