#pragma once

#include <functional>
#include <memory>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Error.h"

namespace skelda::platform {

/// Carries whole packets to the one peer, while there is one. A real device brings its own.
class WCTransport {
 public:
  /// A packet's place among those that wait to be looked at; given up by letting go of it, on any
  /// thread. A peer that sends faster than they are given up is not read meanwhile.
  using Place = std::shared_ptr<const void>;

  /// What a session wants to hear. The calls come one at a time, in order, on any thread.
  struct Receiver {
    std::function<void(bool there)> peerDidChange;
    std::function<void(Data packet, Place place)> didReceivePacket;
  };

  /// Begins to look for the peer. Called once. False, and an error, when that cannot work.
  virtual bool open(Receiver receiver, ErrorRef* error) = 0;
  /// Hands a packet to the peer. False when it is not there; what was handed over may still be
  /// lost with the link.
  virtual bool send(const Data& packet) = 0;
  /// Leaves the peer; it may come back. What it sent was not to be understood.
  virtual void dropPeer() = 0;

 protected:
  ~WCTransport() = default;
};

}  // namespace skelda::platform
