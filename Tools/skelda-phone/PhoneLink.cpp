#include "Tools/skelda-phone/PhoneLink.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <thread>

using skelda::platform::Data;
using skelda::platform::WCPacket;
using skelda::platform::WCPacketFraming;

namespace {
constexpr std::chrono::milliseconds kRetryInterval{50};
constexpr std::chrono::seconds kSendPatience{10};
}  // namespace

bool PhoneLink::connect(Clock::time_point deadline) {
  hangUp();
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path_.empty() || path_.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, path_.data(), path_.size());
  framing_ = {};
  for (;;) {
    const int candidate = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (candidate < 0) return false;
    if (::connect(candidate, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
      descriptor_ = candidate;
      return true;
    }
    ::close(candidate);
    if (Clock::now() + kRetryInterval > deadline) return false;
    std::this_thread::sleep_for(kRetryInterval);
  }
}

void PhoneLink::hangUp() {
  if (descriptor_ >= 0) ::close(descriptor_);
  descriptor_ = -1;
}

short PhoneLink::waitFor(short events, Clock::time_point deadline) const {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd entry{.fd = descriptor_, .events = events, .revents = 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(std::max<std::int64_t>(0, left.count())));
    if (ready > 0) return entry.revents;
    if (ready == 0 || errno != EINTR) return 0;
  }
}

bool PhoneLink::sendBytes(std::string_view bytes, std::chrono::milliseconds pause) {
  const std::size_t step = pause.count() > 0 ? 1 : bytes.size();
  while (!bytes.empty()) {
    // What comes meanwhile is taken in: a watch that finds no room for its answers reads no more.
    const short ready = waitFor(POLLOUT | POLLIN, Clock::now() + kSendPatience);
    if (ready == 0 || ((ready & POLLIN) != 0 && !takeIn())) return false;
    if ((ready & POLLOUT) == 0) continue;
    const ssize_t sent = ::send(descriptor_, bytes.data(), std::min(step, bytes.size()),
                                MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (sent < 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
    if (pause.count() > 0) std::this_thread::sleep_for(pause);
  }
  return true;
}

bool PhoneLink::send(const WCPacket& packet, std::chrono::milliseconds pause,
                     std::optional<std::size_t> limit) {
  const auto frame = WCPacketFraming::framed(packet.encoded());
  if (!frame) return false;
  std::string_view bytes = frame->view();
  if (limit) bytes = bytes.substr(0, *limit);
  return sendBytes(bytes, pause);
}

std::optional<WCPacket> PhoneLink::receive(Clock::time_point deadline) {
  for (;;) {
    if (auto bytes = framing_.next()) return WCPacket::decoded(bytes->view());
    if (framing_.isBroken() || !isConnected() || waitFor(POLLIN, deadline) == 0 || !takeIn()) {
      return std::nullopt;
    }
  }
}

bool PhoneLink::takeIn() {
  std::array<char, 16384> chunk;
  const ssize_t length = ::recv(descriptor_, chunk.data(), chunk.size(), 0);
  if (length < 0 && errno == EINTR) return true;
  if (length <= 0) {
    hangUp();
    return false;
  }
  framing_.append(chunk.data(), static_cast<std::size_t>(length));
  return true;
}
