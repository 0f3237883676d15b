#include "Platform/WatchConnectivity/WCSocketTransport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "Platform/Base/Descriptor.h"
#include "Platform/Base/LogFormat.h"

namespace skelda::platform {
namespace {

constexpr int kSendPatienceMilliseconds = 5000;
constexpr std::chrono::seconds kShortagePatience{1};
constexpr std::size_t kReadSize = std::size_t{64} << 10;

bool addressOf(const std::string& path, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address->sun_path)) return false;
  std::memcpy(address->sun_path, path.data(), path.size());
  return true;
}

int newSocket() {
  return aboveStandardDescriptors(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

/// Whether the system lacks something for now: who waits at the door goes on waiting there.
bool isShortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

/// Whether a socket stands at the path that nobody listens to any more.
bool isStale(const sockaddr_un& address) {
  struct stat status {};
  if (::lstat(address.sun_path, &status) != 0 || !S_ISSOCK(status.st_mode)) return false;
  const int probe = newSocket();
  if (probe < 0) return false;
  const bool refused =
      ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno == ECONNREFUSED;
  ::close(probe);
  return refused;
}

bool isOfSameUser(int peer) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  return ::getsockopt(peer, SOL_SOCKET, SO_PEERCRED, &credentials, &length) == 0 &&
         credentials.uid == ::geteuid();
}

bool sendAll(int peer, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(peer, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(sent));
      continue;
    }
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno != EAGAIN) return false;
    pollfd writable{.fd = peer, .events = POLLOUT, .revents = 0};
    const int ready = ::poll(&writable, 1, kSendPatienceMilliseconds);
    if (ready == 0 || (ready < 0 && errno != EINTR)) return false;
  }
  return true;
}

bool hasHungUp(int peer) {
  pollfd entry{.fd = peer, .events = POLLRDHUP, .revents = 0};
  return ::poll(&entry, 1, 0) > 0;
}

}  // namespace

std::shared_ptr<WCSocketTransport> WCSocketTransport::make(std::string path) {
  return std::shared_ptr<WCSocketTransport>(new WCSocketTransport(std::move(path)));
}

WCSocketTransport::WCSocketTransport(std::string path)
    : path_(std::move(path)), queue_(Queue::serial("watchconnectivity.socket")) {}

WCSocketTransport::~WCSocketTransport() {
  if (peerSource_) peerSource_->cancel();
  if (listenerSource_) listenerSource_->cancel();
}

int WCSocketTransport::listenAtPath(ErrorRef* error) const {
  sockaddr_un address;
  if (!addressOf(path_, &address)) {
    setError(error, posixError(ENAMETOOLONG, path_));
    return -1;
  }
  const int listener = newSocket();
  if (listener < 0) {
    setError(error, posixError(errno, path_));
    return -1;
  }
  if (isStale(address)) ::unlink(address.sun_path);
  // The mode is the socket's from the moment it has a name: nobody else gets in between.
  const bool listening =
      ::fchmod(listener, 0600) == 0 &&
      ::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
      ::listen(listener, 4) == 0;
  if (!listening) {
    setError(error, posixError(errno, path_));
    ::close(listener);
    return -1;
  }
  return listener;
}

bool WCSocketTransport::open(Receiver receiver, ErrorRef* error) {
  const int listener = listenAtPath(error);
  if (listener < 0) return false;
  receiver_ = std::move(receiver);
  listenerSource_ = ReadSource::make(listener, queue_);
  listenerSource_->setEventHandler([weak = weak_from_this(), listener] {
    if (auto self = weak.lock()) self->onqueue_accept(listener);
  });
  listenerSource_->setCancelHandler([listener, path = path_] {
    ::unlink(path.c_str());
    ::close(listener);
  });
  listenerSource_->resume();
  return true;
}

void WCSocketTransport::onqueue_accept(int listener) {
  const int peer =
      aboveStandardDescriptors(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (peer < 0) {
    if (!isShortage(errno)) return;
    SKELDA_PLATFORM_LOG("WCSession: a peer has to wait: {}", std::strerror(errno));
    listenerSource_->suspend();
    return queue_->after(dispatchTimeAfter(kShortagePatience), [weak = weak_from_this()] {
      if (auto self = weak.lock()) self->listenerSource_->resume();
    });
  }
  // A phone that comes back may be heard before its leaving is. What was still to be read of it and
  // finds no room, nobody has acknowledged: it is sent again.
  while (peerSource_ && hasHungUp(peer_)) {
    if (onqueue_hasRoom()) {
      onqueue_read(peer_);
    } else {
      onqueue_leavePeer();
    }
  }
  if (peerSource_ || !isOfSameUser(peer)) {
    SKELDA_PLATFORM_LOG("WCSession: refused a peer: {}",
                        peerSource_ ? "one is there already" : "another user's");
    ::close(peer);
    return;
  }
  peer_ = peer;
  {
    const MutexLock lock(sendMutex_);
    sendsTo_ = peer;
  }
  peerSource_ = ReadSource::make(peer, queue_);
  peerSource_->setEventHandler([weak = weak_from_this(), peer] {
    if (auto self = weak.lock()) self->onqueue_read(peer);
  });
  peerSource_->setCancelHandler([peer] { ::close(peer); });
  receiver_.peerDidChange(true);
  onqueue_handOver();
}

void WCSocketTransport::onqueue_read(int peer) {
  if (peer != peer_) return;
  std::array<char, kReadSize> bytes;
  const ssize_t length = ::recv(peer, bytes.data(), bytes.size(), 0);
  if (length < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (length <= 0) return onqueue_leavePeer();
  framing_.append(bytes.data(), static_cast<std::size_t>(length));
  onqueue_handOver();
}

bool WCSocketTransport::onqueue_hasRoom() const {
  return waiting_ < kMostWaiting && waitingBytes_ < kMostWaitingBytes;
}

/// Hands over what is whole, as far as there is room, and reads on only where there still is.
void WCSocketTransport::onqueue_handOver() {
  if (!peerSource_) return;
  while (onqueue_hasRoom()) {
    auto packet = framing_.next();
    if (!packet) break;
    Place place = onqueue_placeFor(packet->length());
    receiver_.didReceivePacket(*std::move(packet), std::move(place));
  }
  if (framing_.isBroken()) {
    SKELDA_PLATFORM_LOG("WCSession: a peer announced a packet that cannot be, leaving it");
    return onqueue_leavePeer();
  }
  if (onqueue_hasRoom()) {
    peerSource_->resume();
  } else {
    peerSource_->suspend();
  }
}

WCTransport::Place WCSocketTransport::onqueue_placeFor(std::size_t length) {
  ++waiting_;
  waitingBytes_ += length;
  return Place(nullptr, [weak = weak_from_this(), length](const void*) {
    const auto self = weak.lock();
    if (self == nullptr) return;
    self->queue_->async([self, length] {
      --self->waiting_;
      self->waitingBytes_ -= length;
      self->onqueue_handOver();
    });
  });
}

void WCSocketTransport::onqueue_leavePeer() {
  if (peer_ < 0) return;
  {
    const MutexLock lock(sendMutex_);
    sendsTo_ = -1;
  }
  // The other side learns at once; the descriptor is closed when the source has let go of it.
  ::shutdown(std::exchange(peer_, -1), SHUT_RDWR);
  peerSource_->cancel();
  peerSource_ = nullptr;
  static_cast<void>(std::exchange(framing_, {}));  // with its memory
  receiver_.peerDidChange(false);
}

bool WCSocketTransport::send(const Data& packet) {
  const auto frame = WCPacketFraming::framed(packet);
  if (!frame) return false;
  const MutexLock lock(sendMutex_);
  if (sendsTo_ < 0) return false;
  if (sendAll(sendsTo_, frame->view())) return true;
  // Half a packet may be out: the stream is of no use any more. The reader sees its end.
  ::shutdown(sendsTo_, SHUT_RDWR);
  return false;
}

void WCSocketTransport::dropPeer() {
  queue_->async([self = shared_from_this()] { self->onqueue_leavePeer(); });
}

}  // namespace skelda::platform
