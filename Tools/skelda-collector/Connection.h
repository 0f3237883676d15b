#pragma once

#include <httplib.h>
#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <string_view>

/// How long a peer may take for what. Whoever takes longer is left.
struct ConnectionLimits {
  std::size_t most = 256;                                      // connections at once
  std::chrono::milliseconds idle = std::chrono::seconds(60);   // between two requests
  std::chrono::milliseconds head = std::chrono::seconds(10);   // for a handshake, and for a head
  std::chrono::milliseconds quiet = std::chrono::seconds(20);  // without a byte of a body
  std::uint64_t pace = 1024;  // bytes of a body in a second at least, `quiet` apart
  std::size_t headBytes = std::size_t{64} << 10;
};

/// One connection, with TLS or without, as the HTTP library reads and writes it, and what a
/// well-behaved server does not do with one. Used on the thread that serves it; breakOff(),
/// stopReading() and what is asked of its state, on any.
class Connection final : public httplib::Stream {
 public:
  using Clock = std::chrono::steady_clock;

  /// Takes the socket over. `tls` may be null.
  Connection(int fd, SSL_CTX* tls, const ConnectionLimits& limits);
  ~Connection() override;
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// That whose request this thread serves.
  static Connection& current();

  bool handshake();
  /// Waits for the first byte of a request; false when none came in time, or when what comes next
  /// is still of the last one.
  bool awaitRequest();
  /// The request is answered, and not read to its end: nothing behind it can be understood.
  void leaveUnread() { unread_ = true; }

  /// Closes the connection at once: the client sees its end, and nothing more arrives there,
  /// whatever the server still writes.
  void close();
  /// The same, but the client sees a reset.
  void reset();

  /// Whether the peer is waited for and has not been left, and since when it has moved nothing.
  bool waitsForPeer() const { return waitsForPeer_ && !brokenOff_; }
  Clock::time_point lastMoved() const { return Clock::time_point(Clock::duration(lastMoved_)); }
  void breakOff();
  /// Makes it look ended by the client; what is being answered still is.
  void stopReading();

  bool is_readable() const override;
  bool is_writable() const override;
  ssize_t read(char* out, std::size_t size) override;
  ssize_t write(const char* bytes, std::size_t size) override;
  void get_remote_ip_and_port(std::string& ip, int& port) const override;
  void get_local_ip_and_port(std::string& ip, int& port) const override;
  socket_t socket() const override { return fd_; }

 private:
  enum class Phase { handshake, idle, head, body };

  /// Begins a phase now.
  void enter(Phase phase);
  Clock::time_point deadline() const;
  bool waitFor(short events, Clock::time_point deadline) const;
  /// Does `step` as often as the socket or TLS asks for more; what it gave at last.
  template <class Step>
  ssize_t driven(Step step, Clock::time_point (Connection::*deadline)() const, short events);
  Clock::time_point writeDeadline() const { return Clock::now() + limits_.quiet; }
  bool fill();
  void follow(char byte);

  const ConnectionLimits& limits_;
  const int fd_;
  SSL* ssl_ = nullptr;
  bool left_ = false;
  bool unread_ = false;

  Phase phase_ = Phase::handshake;
  Clock::time_point phaseBegan_ = Clock::now();
  std::uint64_t phaseBytes_ = 0;
  bool lineIsEmpty_ = false;

  char buffer_[16384];
  std::size_t begin_ = 0;
  std::size_t end_ = 0;

  mutable std::atomic<bool> waitsForPeer_ = false;
  std::atomic<bool> brokenOff_ = false;
  std::atomic<Clock::rep> lastMoved_ = Clock::now().time_since_epoch().count();
};
