#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/WatchConnectivity/WCPacket.h"

/// The phone's end of the socket: connects to a watch host, sends, and waits for packets with a
/// deadline. One thread.
class PhoneLink {
 public:
  using Clock = std::chrono::steady_clock;

  explicit PhoneLink(std::string path) : path_(std::move(path)) {}
  ~PhoneLink() { hangUp(); }
  PhoneLink(const PhoneLink&) = delete;
  PhoneLink& operator=(const PhoneLink&) = delete;

  /// Tries again until the watch is there or the deadline has come.
  bool connect(Clock::time_point deadline);
  void hangUp();
  bool isConnected() const { return descriptor_ >= 0; }

  /// Sends the packet, `pause` apart byte by byte when it is not zero, and stops after `limit`
  /// bytes.
  bool send(const skelda::platform::WCPacket& packet, std::chrono::milliseconds pause = {},
            std::optional<std::size_t> limit = std::nullopt);
  bool sendBytes(std::string_view bytes, std::chrono::milliseconds pause = {});

  /// The next packet; nothing when the deadline came first or the watch hung up.
  std::optional<skelda::platform::WCPacket> receive(Clock::time_point deadline);

 private:
  /// What of the events has come; 0 at the deadline.
  short waitFor(short events, Clock::time_point deadline) const;
  /// Reads what is there; false where the watch has hung up.
  bool takeIn();

  std::string path_;
  int descriptor_ = -1;
  skelda::platform::WCPacketFraming framing_;
};
