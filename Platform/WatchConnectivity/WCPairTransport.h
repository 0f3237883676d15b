#pragma once

#include <memory>
#include <utility>

#include "Platform/WatchConnectivity/WCTransport.h"

namespace skelda::platform {

/// Two ends in one process, for tests: what one sends the other receives, on the sender's thread,
/// while the pair is joined.
class WCPairTransport final : public WCTransport {
 public:
  using Ref = std::shared_ptr<WCPairTransport>;
  /// Two ends that are apart.
  static std::pair<Ref, Ref> make();
  /// Brings the pair together or takes it apart; both open ends are told. Either end will do.
  void setJoined(bool joined);

  bool open(Receiver receiver, ErrorRef* error) override;
  bool send(const Data& packet) override;
  void dropPeer() override { setJoined(false); }

 private:
  struct Link;
  WCPairTransport(std::shared_ptr<Link> link, int side) : link_(std::move(link)), side_(side) {}
  const std::shared_ptr<Link> link_;
  const int side_;
};

}  // namespace skelda::platform
