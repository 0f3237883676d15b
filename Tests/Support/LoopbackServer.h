#pragma once

#include "Tests/Support/Testing.h"
#include "Tools/skelda-collector/Certificates.h"

struct ssl_ctx_st;
struct ssl_st;

namespace skelda::testing {

/// An authority of a test's own: the collector's, in a folder of its own. While it lives
/// SSL_CERT_FILE names it, so that this process trusts it and nobody else.
class TestAuthority {
 public:
  TestAuthority() { environment_.set("SSL_CERT_FILE", issue().authorityPath); }

  /// For "localhost" and 127.0.0.1, or one of the bad ones.
  Certificates issue(Certificates::Kind kind = Certificates::Kind::good) const {
    return Certificates::prepare(folder_.path(), {"localhost", "127.0.0.1"}, kind);
  }

 private:
  TemporaryDirectory folder_;
  ScopedEnvironment environment_;
};

struct ReceivedRequest {
  std::string method;
  std::string target;
  std::vector<std::pair<std::string, std::string>> fields;  // names in lower case, as they came
  std::string body;
  std::size_t connection = 0;  // counted from 1
  /// Empty where it is absent.
  std::string field(std::string_view lowerCaseName) const;
};

class LoopbackServer;

struct LoopbackServerOptions {
  std::optional<Certificates> certificate = std::nullopt;  ///< https
  int newestTLS = 0;                                       ///< 0: whatever there is
};

/// One connection that the server accepted, in the hands of a handler. Used on its own thread.
class ServerConnection {
 public:
  /// Reads a request head, then as much of its body as was announced.
  bool readRequest(ReceivedRequest& request) { return readHead(request) && readBody(request); }
  bool readHead(ReceivedRequest& request);
  bool readBody(ReceivedRequest& request);
  bool send(std::string_view bytes);
  /// A whole answer, after which the connection is kept.
  bool answer(int status, std::string_view body = {}, std::string_view extraFields = {});
  /// The client sees a reset, not an end.
  void reset();
  void close();
  LoopbackServer& server() const { return server_; }

 private:
  friend class LoopbackServer;
  ServerConnection(LoopbackServer& server, int socket, std::size_t number)
      : server_(server), socket_(socket), number_(number) {}
  ~ServerConnection();
  bool fill();
  bool startTLS(ssl_ctx_st* context);

  LoopbackServer& server_;
  int socket_;
  const std::size_t number_;
  ssl_st* tls_ = nullptr;
  std::string buffer_;
};

/// An HTTP server on 127.0.0.1, a thread for each connection, that does what a test says, lawful or
/// not: with a handler for requests, or for whole connections.
class LoopbackServer {
 public:
  using RequestHandler = std::function<void(ServerConnection&, const ReceivedRequest&)>;
  using ConnectionHandler = std::function<void(ServerConnection&)>;
  using Options = LoopbackServerOptions;

  explicit LoopbackServer(RequestHandler handler, Options options = {});
  explicit LoopbackServer(ConnectionHandler handler, Options options = {});
  /// Lets held answers go, cuts the connections and waits for its threads.
  ~LoopbackServer();

  std::string url(const std::string& path = "/v1/skd.do") const;
  std::uint16_t port() const { return port_; }
  std::vector<ReceivedRequest> requests() const { return locked(requests_); }
  std::size_t requestCount() const { return requests().size(); }
  std::size_t connections() const { return locked(connections_); }
  std::size_t openConnections() const { return locked(sockets_).size(); }

  /// Until `condition`, looked at whenever something happens at the server, holds.
  bool waitUntil(const std::function<bool()>& condition) const;
  bool waitForRequests(std::size_t count) const {
    return waitUntil([&] { return requestCount() >= count; });
  }

  /// A handler's way of not answering: returns when release() is called, or the server goes.
  void hold();
  void release() {
    change([this] { ++releases_; });
  }
  std::size_t held() const { return locked(held_); }

 private:
  friend class ServerConnection;
  void listen();
  void acceptAll();
  void serve(int socket, std::size_t number);
  template <class T>
  T locked(const T& member) const {
    std::lock_guard lock(mutex_);
    return member;
  }
  template <class F>
  void change(F what) {
    {
      std::lock_guard lock(mutex_);
      what();
    }
    changed_.notify_all();
  }

  ConnectionHandler handler_;
  const Options options_;
  ssl_ctx_st* context_ = nullptr;
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::thread acceptor_;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::thread> threads_;
  std::set<int> sockets_;
  std::vector<ReceivedRequest> requests_;
  std::size_t connections_ = 0;
  std::size_t held_ = 0;
  std::size_t releases_ = 0;
  bool stopping_ = false;
};

inline auto answering(int status, std::string body = {}, std::string fields = {}) {
  return [=](ServerConnection& to, const ReceivedRequest&) { to.answer(status, body, fields); };
}

}  // namespace skelda::testing
