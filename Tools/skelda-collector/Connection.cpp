#include "Tools/skelda-collector/Connection.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace {

using std::chrono::milliseconds;

thread_local Connection* currentConnection = nullptr;

void describe(const sockaddr_storage& address, socklen_t length, std::string& ip, int& port) {
  char host[NI_MAXHOST] = "";
  char service[NI_MAXSERV] = "";
  ::getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host, sizeof(host), service,
                sizeof(service), NI_NUMERICHOST | NI_NUMERICSERV);
  ip = host;
  port = std::atoi(service);
}

}  // namespace

Connection::Connection(int fd, SSL_CTX* tls, const ConnectionLimits& limits)
    : limits_(limits), fd_(fd) {
  ::fcntl(fd_, F_SETFL, ::fcntl(fd_, F_GETFL) | O_NONBLOCK);
  const int yes = 1;
  ::setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof(yes));
  if (tls && (ssl_ = SSL_new(tls))) SSL_set_fd(ssl_, fd_);
  left_ = tls && !ssl_;
  currentConnection = this;
}

Connection::~Connection() {
  currentConnection = nullptr;
  if (ssl_ && !left_ && phase_ != Phase::handshake) SSL_shutdown(ssl_);
  SSL_free(ssl_);
  ERR_clear_error();
  if (!left_) ::shutdown(fd_, SHUT_RDWR);
  ::close(fd_);
}

Connection& Connection::current() {
  return *currentConnection;
}

void Connection::enter(Phase phase) {
  phase_ = phase;
  phaseBegan_ = Clock::now();
  phaseBytes_ = 0;
  lineIsEmpty_ = false;
}

Connection::Clock::time_point Connection::deadline() const {
  switch (phase_) {
    case Phase::handshake:
    case Phase::head:
      return phaseBegan_ + limits_.head;
    case Phase::idle:
      return phaseBegan_ + limits_.idle;
    case Phase::body:
      break;
  }
  const auto paced = phaseBegan_ + limits_.quiet + milliseconds(phaseBytes_ * 1000 / limits_.pace);
  return std::min(Clock::now() + limits_.quiet, paced);
}

bool Connection::waitFor(short events, Clock::time_point deadline) const {
  waitsForPeer_ = true;
  int ready = 0;
  do {
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
    pollfd descriptor{fd_, events, 0};
    ready = ::poll(&descriptor, 1, static_cast<int>(std::clamp<std::int64_t>(left, 0, 1 << 30)));
  } while (ready < 0 && errno == EINTR);
  waitsForPeer_ = false;
  return ready > 0;
}

template <class Step>
ssize_t Connection::driven(Step step, Clock::time_point (Connection::*until)() const,
                           short events) {
  const auto deadline = (this->*until)();
  while (!left_) {
    ERR_clear_error();
    const ssize_t moved = step();
    if (moved > 0) {
      lastMoved_ = Clock::now().time_since_epoch().count();
      return moved;
    }
    short wanted = 0;
    if (ssl_) {
      const int error = SSL_get_error(ssl_, static_cast<int>(moved));
      wanted = error == SSL_ERROR_WANT_READ    ? POLLIN
               : error == SSL_ERROR_WANT_WRITE ? POLLOUT
                                               : static_cast<short>(0);
    } else if (moved < 0 && (errno == EAGAIN || errno == EINTR)) {
      wanted = events;
    }
    if (wanted == 0 || !waitFor(wanted, deadline)) return -1;
  }
  return -1;
}

bool Connection::handshake() {
  if (!ssl_) return !left_;
  if (driven([this] { return SSL_accept(ssl_); }, &Connection::deadline, POLLIN) > 0) return true;
  left_ = true;
  return false;
}

bool Connection::awaitRequest() {
  if (left_ || unread_ || phase_ == Phase::head) return false;
  if (begin_ == end_) {
    enter(Phase::idle);
    if (!fill()) return false;
  }
  enter(Phase::head);
  return true;
}

bool Connection::fill() {
  const auto got = driven(
      [this] {
        return ssl_ ? SSL_read(ssl_, buffer_, sizeof(buffer_))
                    : ::recv(fd_, buffer_, sizeof(buffer_), 0);
      },
      &Connection::deadline, POLLIN);
  begin_ = 0;
  end_ = got > 0 ? static_cast<std::size_t>(got) : 0;
  return got > 0;
}

void Connection::follow(char byte) {
  if (byte == '\n') {
    if (lineIsEmpty_) return enter(Phase::body);
    lineIsEmpty_ = true;
  } else if (byte != '\r') {
    lineIsEmpty_ = false;
  }
}

ssize_t Connection::read(char* out, std::size_t size) {
  if (left_ || (begin_ == end_ && !fill())) return left_ ? -1 : 0;
  // The library takes a head byte by byte.
  std::size_t length = std::min(size, end_ - begin_);
  if (phase_ == Phase::head) length = std::min<std::size_t>(length, 1);
  std::copy_n(buffer_ + begin_, length, out);
  begin_ += length;
  phaseBytes_ += length;
  if (phase_ == Phase::head) {
    if (phaseBytes_ > limits_.headBytes) return -1;
    follow(*out);
  }
  return static_cast<ssize_t>(length);
}

bool Connection::is_readable() const {
  return begin_ != end_ || waitFor(POLLIN, Clock::now());
}

bool Connection::is_writable() const {
  return !left_ && waitFor(POLLOUT, writeDeadline());
}

ssize_t Connection::write(const char* bytes, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const auto written = driven(
        [this, at = bytes + done, left = size - done]() -> ssize_t {
          if (!ssl_) return ::send(fd_, at, left, MSG_NOSIGNAL);
          return SSL_write(ssl_, at, static_cast<int>(std::min<std::size_t>(left, 1 << 20)));
        },
        &Connection::writeDeadline, POLLOUT);
    if (written <= 0) return -1;
    done += static_cast<std::size_t>(written);
  }
  return static_cast<ssize_t>(size);
}

void Connection::get_remote_ip_and_port(std::string& ip, int& port) const {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (::getpeername(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    describe(address, length, ip, port);
}

void Connection::get_local_ip_and_port(std::string& ip, int& port) const {
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  if (::getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    describe(address, length, ip, port);
}

void Connection::close() {
  left_ = true;
  ::shutdown(fd_, SHUT_RDWR);
}

void Connection::reset() {
  left_ = true;  // and so it is closed as soon as the request's handler returns
  const linger atOnce{1, 0};
  ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &atOnce, sizeof(atOnce));
}

void Connection::breakOff() {
  brokenOff_ = true;
  ::shutdown(fd_, SHUT_RDWR);
}

void Connection::stopReading() {
  ::shutdown(fd_, SHUT_RD);
}
