#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "Platform/Dispatch/Queue.h"
#include "Platform/Dispatch/ReadSource.h"
#include "Platform/WatchConnectivity/WCPacket.h"
#include "Platform/WatchConnectivity/WCTransport.h"

namespace skelda::platform {

/// A Unix-domain socket on which the watch listens for its phone: one peer at a time, of the same
/// user, packets as WCPacketFraming has them. A peer whose bytes cannot be understood is left.
class WCSocketTransport : public WCTransport,
                          public std::enable_shared_from_this<WCSocketTransport> {
 public:
  /// `path` is where the socket will stand; a stale one of a process that is gone is replaced.
  static std::shared_ptr<WCSocketTransport> make(std::string path);
  ~WCSocketTransport() override;

  bool open(Receiver receiver, ErrorRef* error) override;
  /// Waits up to five seconds for a peer that does not read, then leaves it.
  bool send(const Data& packet) override;
  void dropPeer() override;

 private:
  explicit WCSocketTransport(std::string path);
  int listenAtPath(ErrorRef* error) const;
  void onqueue_accept(int listener);
  void onqueue_read(int peer);
  void onqueue_leavePeer(int peer);

  const std::string path_;
  const QueueRef queue_;  // accepting, reading, telling
  Receiver receiver_;
  std::shared_ptr<ReadSource> listenerSource_;
  std::shared_ptr<ReadSource> peerSource_;
  WCPacketFraming framing_;

  std::mutex sendMutex_;  // guards the descriptor against being closed while it is written to
  int peer_ = -1;
};

}  // namespace skelda::platform
