#include "Tools/skelda-collector/Connection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

struct Address {
  std::string host;
  int port = -1;
};

Address textOf(const sockaddr_storage& address) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address.ss_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(address);
    ::inet_ntop(AF_INET, &v4.sin_addr, text, sizeof(text));
    return {text, ntohs(v4.sin_port)};
  }
  if (address.ss_family == AF_INET6) {
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address);
    ::inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof(text));
    return {text, ntohs(v6.sin6_port)};
  }
  return {};
}

/// Calls `visit(descriptor, local, peer)` for every connected internet socket of this process.
template <class F>
void forEachConnection(F visit) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    const int fd = std::atoi(entry.path().filename().c_str());
    sockaddr_storage local{};
    sockaddr_storage peer{};
    socklen_t localLength = sizeof(local);
    socklen_t peerLength = sizeof(peer);
    if (::getsockname(fd, reinterpret_cast<sockaddr*>(&local), &localLength) == 0 &&
        ::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0)
      visit(fd, textOf(local), textOf(peer));
  }
}

/// The HTTP library keeps a plain connection's descriptor to itself: it is the one with that peer.
int descriptorTo(const std::string& host, int port) {
  int found = -1;
  forEachConnection([&](int fd, const Address&, const Address& peer) {
    if (peer.host == host && peer.port == port) found = fd;
  });
  return found;
}

}  // namespace

Connection::Connection(const httplib::Request& request)
    : ssl_(const_cast<::SSL*>(request.ssl)),
      fd_(ssl_ ? SSL_get_fd(ssl_) : descriptorTo(request.remote_addr, request.remote_port)) {}

void Connection::stopReadingOn(int port) {
  forEachConnection([port](int fd, const Address& local, const Address&) {
    if (local.port == port) ::shutdown(fd, SHUT_RD);
  });
}

void Connection::write(std::string_view bytes) {
  if (ssl_) {
    SSL_write(ssl_, bytes.data(), static_cast<int>(bytes.size()));
  } else if (fd_ >= 0 && ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
    return;  // the client has left first
  }
}

void Connection::leave(bool reset) {
  if (fd_ < 0) return;
  if (reset) {
    const linger atOnce{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
  } else {
    ::shutdown(fd_, SHUT_RDWR);
  }
  // The library goes on with its descriptor; what it finds there is a socket without a peer.
  const int nowhere = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ::dup3(nowhere, fd_, O_CLOEXEC);
  ::close(nowhere);
}
