#include "Platform/WatchConnectivity/WCPairTransport.h"

#include <array>
#include <mutex>

namespace skelda::platform {

struct WCPairTransport::Link {
  std::recursive_mutex mutex;  // a receiver may answer from inside its call
  bool joined = false;
  bool there = false;  // joined, and both ends open
  std::array<Receiver, 2> receivers;

  void update() {
    const bool now = joined && receivers[0].peerDidChange && receivers[1].peerDidChange;
    if (now == there) return;
    there = now;
    for (const auto& receiver : receivers)
      if (receiver.peerDidChange) receiver.peerDidChange(there);
  }
};

std::pair<WCPairTransport::Ref, WCPairTransport::Ref> WCPairTransport::make() {
  auto link = std::make_shared<Link>();
  return {Ref(new WCPairTransport(link, 0)), Ref(new WCPairTransport(link, 1))};
}

void WCPairTransport::setJoined(bool joined) {
  std::lock_guard lock(link_->mutex);
  link_->joined = joined;
  link_->update();
}

bool WCPairTransport::open(Receiver receiver, ErrorRef* /*error*/) {
  std::lock_guard lock(link_->mutex);
  link_->receivers[static_cast<std::size_t>(side_)] = std::move(receiver);
  link_->update();
  return true;
}

bool WCPairTransport::send(const Data& packet) {
  std::lock_guard lock(link_->mutex);
  if (!link_->there) return false;
  link_->receivers[static_cast<std::size_t>(1 - side_)].didReceivePacket(packet);
  return true;
}

}  // namespace skelda::platform
