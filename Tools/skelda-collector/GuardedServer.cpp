#include "Tools/skelda-collector/GuardedServer.h"

#include <openssl/err.h>

#include <deque>
#include <functional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

using skelda::platform::Condition;
using skelda::platform::Mutex;
using skelda::platform::MutexLock;

/// One thread for each connection, as many as there were at once; kept until the end.
class GuardedServer::Threads final : public httplib::TaskQueue {
 public:
  explicit Threads(GuardedServer& server) : server_(server) {}

  void enqueue(std::function<void()> serve) override {
    MutexLock lock(mutex_);
    waiting_.push_back(std::move(serve));
    ++server_.atTheDoor_;
    if (idle_ < waiting_.size() && threads_.size() < server_.limits_.most) add();
    changed_.notifyOne();
    // Nobody is taken in while as many wait as are served: the system lets them stand at the door.
    while (idle_ < waiting_.size() && !ending_) {
      if (threads_.size() >= server_.limits_.most) server_.breakOffQuietest();
      if (waiting_.size() < server_.limits_.most) break;
      changed_.waitFor(lock, std::chrono::milliseconds(50));
    }
  }

  void shutdown() override {
    {
      const MutexLock lock(mutex_);
      ending_ = true;
    }
    changed_.notifyAll();
    for (auto& thread : threads_) thread.join();
  }

 private:
  void add() REQUIRES(mutex_) {
    try {
      threads_.emplace_back([this] { run(); });
    } catch (const std::system_error&) {
      if (threads_.empty()) throw;  // else one of those that there are will come
    }
  }

  void run() {
    MutexLock lock(mutex_);
    for (;;) {
      ++idle_;
      while (waiting_.empty() && !ending_) changed_.wait(lock);
      --idle_;
      if (waiting_.empty()) return;
      const auto serve = std::move(waiting_.front());
      waiting_.pop_front();
      --server_.atTheDoor_;
      changed_.notifyAll();
      lock.unlock();
      serve();
      lock.lock();
    }
  }

  GuardedServer& server_;
  Mutex mutex_;
  Condition changed_;
  std::deque<std::function<void()>> waiting_ GUARDED_BY(mutex_);
  std::size_t idle_ GUARDED_BY(mutex_) = 0;
  bool ending_ GUARDED_BY(mutex_) = false;
  std::vector<std::thread> threads_;  // of the thread that accepts
};

GuardedServer::GuardedServer(const Certificates* certificates, const ConnectionLimits& limits)
    : limits_(limits) {
  new_task_queue = [this] { return new Threads(*this); };
  if (!certificates) return;
  tls_.reset(SSL_CTX_new(TLS_server_method()));
  if (!tls_ || SSL_CTX_set_min_proto_version(tls_.get(), TLS1_2_VERSION) != 1 ||
      SSL_CTX_use_certificate_chain_file(tls_.get(), certificates->certificatePath.c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(tls_.get(), certificates->keyPath.c_str(), SSL_FILETYPE_PEM) !=
          1 ||
      SSL_CTX_check_private_key(tls_.get()) != 1) {
    const char* reason = ERR_reason_error_string(ERR_get_error());
    throw std::runtime_error(certificates->certificatePath + " cannot be used" +
                             (reason ? std::string(": ") + reason : ""));
  }
  SSL_CTX_set_mode(tls_.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
}

GuardedServer::~GuardedServer() = default;

bool GuardedServer::process_and_close_socket(socket_t fd) {
  Connection connection(fd, tls_.get(), limits_);
  {
    const MutexLock lock(mutex_);
    connections_.insert(&connection);
    if (stopping_) connection.stopReading();
  }
  bool goesOn = connection.handshake();
  while (goesOn && connection.awaitRequest()) {
    bool closed = false;
    goesOn = process_request(connection, false, closed, [](httplib::Request&) {}) && !closed;
    // Nobody keeps a connection while others have none.
    if (atTheDoor_ > 0 && connections() >= limits_.most) goesOn = false;
  }
  const MutexLock lock(mutex_);
  connections_.erase(&connection);
  return true;
}

std::size_t GuardedServer::connections() {
  const MutexLock lock(mutex_);
  return connections_.size();
}

void GuardedServer::breakOffQuietest() {
  const MutexLock lock(mutex_);
  Connection* quietest = nullptr;
  for (auto* each : connections_)
    if (each->waitsForPeer() && (!quietest || each->lastMoved() < quietest->lastMoved()))
      quietest = each;
  if (quietest) quietest->breakOff();
}

void GuardedServer::stopReading() {
  const MutexLock lock(mutex_);
  stopping_ = true;
  for (auto* each : connections_) each->stopReading();
}
