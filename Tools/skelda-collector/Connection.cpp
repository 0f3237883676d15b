#include "Tools/skelda-collector/Connection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <openssl/ssl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

/// Whether `fd` is the connection to that peer.
bool isConnectionTo(int fd, const std::string& address, int port) {
  sockaddr_storage peer{};
  socklen_t length = sizeof(peer);
  if (::getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &length) != 0) return false;
  char text[INET6_ADDRSTRLEN] = "";
  std::uint16_t its = 0;
  if (peer.ss_family == AF_INET) {
    const auto& v4 = reinterpret_cast<const sockaddr_in&>(peer);
    ::inet_ntop(AF_INET, &v4.sin_addr, text, sizeof(text));
    its = ntohs(v4.sin_port);
  } else if (peer.ss_family == AF_INET6) {
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(peer);
    ::inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof(text));
    its = ntohs(v6.sin6_port);
  }
  return its == port && address == text;
}

/// The HTTP library keeps a plain connection's descriptor to itself: it is the one with that peer.
int descriptorTo(const std::string& address, int port) {
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", error)) {
    const int fd = std::atoi(entry.path().filename().c_str());
    if (isConnectionTo(fd, address, port)) return fd;
  }
  return -1;
}

}  // namespace

Connection::Connection(const httplib::Request& request)
    : ssl_(const_cast<::SSL*>(request.ssl)),
      fd_(ssl_ ? SSL_get_fd(ssl_) : descriptorTo(request.remote_addr, request.remote_port)) {}

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
