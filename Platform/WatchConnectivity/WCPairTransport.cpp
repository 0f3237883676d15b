#include "Platform/WatchConnectivity/WCPairTransport.h"

#include <array>
#include <mutex>

namespace skelda::platform {

struct WCPairTransport::Link {
  std::recursive_mutex mutex;  // a receiver may answer from inside its call
  bool joined = false;
  std::array<Receiver, 2> receivers;

  void tell(int side) const {
    if (receivers[static_cast<std::size_t>(side)].peerDidChange)
      receivers[static_cast<std::size_t>(side)].peerDidChange(joined);
  }
};

std::pair<WCPairTransport::Ref, WCPairTransport::Ref> WCPairTransport::make() {
  auto link = std::make_shared<Link>();
  return {Ref(new WCPairTransport(link, 0)), Ref(new WCPairTransport(link, 1))};
}

void WCPairTransport::setJoined(bool joined) {
  std::lock_guard lock(link_->mutex);
  if (link_->joined == joined) return;
  link_->joined = joined;
  link_->tell(0);
  link_->tell(1);
}

bool WCPairTransport::open(Receiver receiver, ErrorRef* /*error*/) {
  std::lock_guard lock(link_->mutex);
  link_->receivers[static_cast<std::size_t>(side_)] = std::move(receiver);
  if (link_->joined) link_->tell(side_);
  return true;
}

bool WCPairTransport::send(const Data& packet) {
  std::lock_guard lock(link_->mutex);
  const Receiver& peer = link_->receivers[static_cast<std::size_t>(1 - side_)];
  if (!link_->joined || !peer.didReceivePacket) return false;
  peer.didReceivePacket(packet);
  return true;
}

}  // namespace skelda::platform
