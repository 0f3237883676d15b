#include "Platform/WatchConnectivity/WCDefaultSession.h"

#include <exception>
#include <utility>
#include <vector>

#include "Platform/Base/Counted.h"
#include "Platform/Base/LogFormat.h"
#include "Platform/Foundation/ClassRegistry.h"

namespace skelda::platform {
namespace {

const ErrorDomain& sessionErrorDomain() {
  static const ErrorDomain domain = makeErrorDomain("WCErrorDomain");
  return domain;
}
constexpr std::int64_t kPayloadTooLarge = 7009;

/// Runs what calls a delegate, and ends what that throws.
void runForDelegate(BlockRef call) {
  try {
    call();
  } catch (const std::exception& exception) {
    SKELDA_PLATFORM_LOG("WCSession: the delegate threw {}", exception.what());
  } catch (...) {
    SKELDA_PLATFORM_LOG("WCSession: the delegate threw");
  }
}

}  // namespace

std::shared_ptr<WCDefaultSession> WCDefaultSession::make(std::shared_ptr<WCTransport> transport) {
  return std::shared_ptr<WCDefaultSession>(new WCDefaultSession(std::move(transport)));
}

WCDefaultSession::WCDefaultSession(std::shared_ptr<WCTransport> transport)
    : transport_(std::move(transport)), queue_(Queue::serial("watchconnectivity.session")) {}

void WCDefaultSession::activateSession() {
  queue_->async([self = shared_from_this()] { self->onqueue_activate(); });
}

void WCDefaultSession::onqueue_activate() {
  ErrorRef error;
  if (!opened_) {
    // The transport outlives no session: the callbacks must not keep this one alive.
    std::weak_ptr<WCDefaultSession> weak = weak_from_this();
    opened_ = transport_->open(
        {.peerDidChange =
             [weak](bool there) {
               if (auto self = weak.lock())
                 self->queue_->async([self, there] { self->onqueue_peerDidChange(there); });
             },
         .didReceivePacket =
             [weak](Data packet, WCTransport::Place place) {
               if (auto self = weak.lock())
                 self->queue_->async([self, packet = std::move(packet), place = std::move(place)] {
                   self->onqueue_didReceive(packet);
                 });
             }},
        &error);
    if (!opened_) {
      SKELDA_PLATFORM_LOG("WCSession: no phone can be heard: {}",
                          error != nullptr ? error->description() : "the transport says no more");
    }
  }
  onqueue_tell(kWCActivationDidComplete, [&](WCSessionDelegate& delegate) {
    delegate.sessionActivationDidComplete(*this, opened_, error);
  });
}

void WCDefaultSession::setDelegate(const DelegateRef& delegate) {
  DelegateRef old;
  std::vector<DelegateObserver> observers;
  {
    const MutexLock lock(mutex_);
    old = delegate_.lock();
    delegate_ = delegate;
    for (const auto& [token, observer] : observers_) observers.push_back(observer);
  }
  for (const auto& observer : observers) observer(old, delegate);
}

WCSession::DelegateRef WCDefaultSession::delegate() const {
  const MutexLock lock(mutex_);
  return delegate_.lock();
}

WCSession::Token WCDefaultSession::addDelegateObserver(DelegateObserver observer) {
  const MutexLock lock(mutex_);
  observers_.emplace(++lastToken_, std::move(observer));
  return lastToken_;
}

void WCDefaultSession::removeDelegateObserver(Token token) {
  const MutexLock lock(mutex_);
  observers_.erase(token);
}

void WCDefaultSession::transferUserInfo(const Dictionary& userInfo) {
  queue_->async(
      [self = shared_from_this(), userInfo] { self->onqueue_transferUserInfo(userInfo); });
}

void WCDefaultSession::onqueue_transferUserInfo(const Dictionary& userInfo) {
  outgoing_.push_back({++lastIdentifier_, {userInfo}});
  if (next_ == outgoing_.end()) --next_;
  onqueue_handOver();
}

bool WCDefaultSession::sendMessage(const Dictionary& message) {
  if (!reachable_) return false;
  return transport_->send(WCPacket{WCPacket::Kind::message, 0, message}.encoded());
}

void WCDefaultSession::onqueue_handOver() {
  while (reachable_ && next_ != outgoing_.end()) {
    const Data packet =
        WCPacket{WCPacket::Kind::userInfo, next_->identifier, next_->transfer.userInfo}.encoded();
    if (packet.length() > WCPacketFraming::kMaximumLength) {
      onqueue_finish(next_++, makeCounted<Error>(sessionErrorDomain(), kPayloadTooLarge));
    } else if (transport_->send(packet)) {
      ++next_;
    } else {
      return;
    }
  }
}

void WCDefaultSession::onqueue_peerDidChange(bool there) {
  if (reachable_.exchange(there) == there) return;
  onqueue_tell(kWCReachabilityDidChange,
               [&](WCSessionDelegate& delegate) { delegate.sessionReachabilityDidChange(*this); });
  // What a peer took with it unacknowledged is offered to the next one.
  next_ = outgoing_.begin();
  onqueue_handOver();
}

void WCDefaultSession::onqueue_didReceive(const Data& bytes) {
  const auto packet = WCPacket::decoded(bytes.view());
  if (!packet) {
    SKELDA_PLATFORM_LOG("WCSession: refused {} bytes that are no packet", bytes.length());
    transport_->dropPeer();
    return;
  }
  switch (packet->kind) {
    case WCPacket::Kind::received:
      onqueue_didAcknowledge(packet->identifier);
      break;
    case WCPacket::Kind::message:
      onqueue_tell(kWCDidReceiveMessage, [&](WCSessionDelegate& delegate) {
        delegate.sessionDidReceiveMessage(*this, packet->content);
      });
      break;
    case WCPacket::Kind::userInfo:
      onqueue_tell(kWCDidReceiveUserInfo, [&](WCSessionDelegate& delegate) {
        delegate.sessionDidReceiveUserInfo(*this, packet->content);
      });
      // After the delegate: what fails here is sent to us again.
      transport_->send(WCPacket{WCPacket::Kind::received, packet->identifier, {}}.encoded());
      break;
  }
}

void WCDefaultSession::onqueue_didAcknowledge(std::uint64_t identifier) {
  // The peer answers in order: nearly always it is the first.
  for (auto place = outgoing_.begin(); place != next_; ++place) {
    if (place->identifier == identifier) return onqueue_finish(place, nullptr);
  }
}

void WCDefaultSession::onqueue_finish(std::list<Outgoing>::iterator place, const ErrorRef& error) {
  const WCSessionUserInfoTransfer transfer = std::move(place->transfer);
  outgoing_.erase(place);
  onqueue_tell(kWCDidFinishUserInfoTransfer, [&](WCSessionDelegate& delegate) {
    delegate.sessionDidFinishUserInfoTransfer(*this, transfer, error);
  });
}

template <class F>
void WCDefaultSession::onqueue_tell(WCSessionDelegateCall call, F&& make) {
  const DelegateRef delegate = this->delegate();
  if (delegate == nullptr) return;
  runForDelegate([&] {
    if ((delegate->answeredCalls() & call) != 0) make(*delegate);
  });
}

void installWatchConnectivity(std::shared_ptr<WCTransport> transport) {
  ClassRegistry::shared().registerClass(
      {.name = "WCSession",
       .superclass = {},
       .protocols = {},
       .factory = [session = WCDefaultSession::make(std::move(transport))] { return session; }});
}

}  // namespace skelda::platform
