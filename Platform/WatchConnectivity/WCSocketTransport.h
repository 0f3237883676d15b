#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Dispatch/ReadSource.h"
#include "Platform/WatchConnectivity/WCPacket.h"
#include "Platform/WatchConnectivity/WCTransport.h"

namespace skelda::platform {

/// A Unix-domain socket on which the watch listens for its phone: one peer at a time, of the same
/// user, packets as WCPacketFraming has them. A peer whose bytes cannot be understood is left; one
/// that sends faster than its packets are looked at waits, once kMostWaiting of them, or
/// kMostWaitingBytes, have been handed over and not yet given up.
class WCSocketTransport final : public WCTransport,
                                public std::enable_shared_from_this<WCSocketTransport> {
 public:
  static constexpr std::size_t kMostWaiting = 64;
  static constexpr std::size_t kMostWaitingBytes = std::size_t{1} << 20;

  /// `path` is where the socket will stand; a stale one of a process that is gone is replaced.
  static std::shared_ptr<WCSocketTransport> make(std::string path);
  ~WCSocketTransport();

  bool open(Receiver receiver, ErrorRef* error) override;
  /// Waits up to five seconds for a peer that does not read, then leaves it.
  bool send(const Data& packet) override;
  void dropPeer() override;

 private:
  explicit WCSocketTransport(std::string path);
  int listenAtPath(ErrorRef* error) const;
  void onqueue_accept(int listener);
  void onqueue_read(int peer);
  void onqueue_leavePeer();
  void onqueue_handOver();
  Place onqueue_placeFor(std::size_t length);
  bool onqueue_hasRoom() const;

  const std::string path_;
  const QueueRef queue_;  // accepting, reading, telling
  Receiver receiver_;
  std::shared_ptr<ReadSource> listenerSource_;
  std::shared_ptr<ReadSource> peerSource_;
  int peer_ = -1;
  WCPacketFraming framing_;
  std::size_t waiting_ = 0;
  std::size_t waitingBytes_ = 0;

  Mutex sendMutex_;  // nobody closes the descriptor while it is written to
  int sendsTo_ GUARDED_BY(sendMutex_) = -1;
};

}  // namespace skelda::platform
