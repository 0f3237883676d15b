#include "Platform/WatchConnectivity/WCPairTransport.h"

#include <array>

#include "Platform/Base/Counted.h"
#include "Platform/Base/Mutex.h"

namespace skelda::platform {

struct WCPairTransport::Link {
  RecursiveMutex mutex;  // a receiver may answer from inside its call
  bool joined GUARDED_BY(mutex) = false;
  bool there GUARDED_BY(mutex) = false;  // joined, and both ends open
  std::array<Receiver, 2> receivers GUARDED_BY(mutex);

  void update() REQUIRES(mutex) {
    const bool now = joined && receivers[0].peerDidChange && receivers[1].peerDidChange;
    if (now == there) return;
    there = now;
    for (const auto& receiver : receivers)
      if (receiver.peerDidChange) receiver.peerDidChange(there);
  }
};

std::pair<WCPairTransport::Ref, WCPairTransport::Ref> WCPairTransport::make() {
  auto link = makeCounted<Link>();
  return {Ref(new WCPairTransport(link, 0)), Ref(new WCPairTransport(link, 1))};
}

void WCPairTransport::setJoined(bool joined) {
  const RecursiveMutexLock lock(link_->mutex);
  link_->joined = joined;
  link_->update();
}

bool WCPairTransport::open(Receiver receiver, ErrorRef* /*error*/) {
  const RecursiveMutexLock lock(link_->mutex);
  link_->receivers[static_cast<std::size_t>(side_)] = std::move(receiver);
  link_->update();
  return true;
}

bool WCPairTransport::send(const Data& packet) {
  const RecursiveMutexLock lock(link_->mutex);
  if (!link_->there) return false;
  link_->receivers[static_cast<std::size_t>(1 - side_)].didReceivePacket(packet, nullptr);
  return true;
}

}  // namespace skelda::platform
