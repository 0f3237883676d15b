#pragma once

#include <httplib.h>
#include <openssl/ssl.h>

#include <memory>
#include <set>

#include "Platform/Base/Mutex.h"
#include "Tools/skelda-collector/Certificates.h"
#include "Tools/skelda-collector/Connection.h"

/// The HTTP library's server on connections that no peer can hold up: each has a thread of its own
/// and a deadline for whatever it does, and when there are as many as there may be, the next one
/// takes the place of that which has waited longest for its peer.
class GuardedServer : public httplib::Server {
 public:
  /// Plain HTTP without certificates. Throws std::runtime_error when they cannot be used.
  GuardedServer(const Certificates* certificates, const ConnectionLimits& limits);
  ~GuardedServer() override;

  /// Takes a socket that listens, for listen_after_bind().
  void setListener(int fd) { svr_sock_ = fd; }
  /// From any thread: no request is begun any more, and none that is still arriving goes on.
  void stopReading();

 private:
  class Threads;
  struct ContextFreer {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
  };

  bool process_and_close_socket(socket_t fd) override;
  std::size_t connections();
  void breakOffQuietest();

  const ConnectionLimits limits_;
  std::atomic<std::size_t> atTheDoor_ = 0;  // connections that no thread has taken up yet
  std::unique_ptr<SSL_CTX, ContextFreer> tls_;
  skelda::platform::Mutex mutex_;
  std::set<Connection*> connections_ GUARDED_BY(mutex_);
  bool stopping_ GUARDED_BY(mutex_) = false;
};
