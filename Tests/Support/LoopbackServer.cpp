#include "Tests/Support/LoopbackServer.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

namespace skelda::testing {

std::string ReceivedRequest::field(std::string_view lowerCaseName) const {
  for (const auto& [name, value] : fields)
    if (name == lowerCaseName) return value;
  return {};
}

ServerConnection::~ServerConnection() {
  close();
  SSL_free(tls_);
}

bool ServerConnection::startTLS(ssl_ctx_st* context) {
  tls_ = SSL_new(context);
  SSL_set_fd(tls_, socket_);
  const bool shaken = SSL_accept(tls_) == 1;
  ERR_clear_error();
  return shaken;
}

bool ServerConnection::fill() {
  std::array<char, 65536> bytes;
  const ssize_t length = tls_ != nullptr ? SSL_read(tls_, bytes.data(), int{sizeof bytes})
                                         : ::recv(socket_, bytes.data(), sizeof bytes, 0);
  ERR_clear_error();
  if (length > 0) buffer_.append(bytes.data(), static_cast<std::size_t>(length));
  return length > 0;
}

bool ServerConnection::readHead(ReceivedRequest& request) {
  std::size_t end = 0;
  while ((end = buffer_.find("\r\n\r\n")) == std::string::npos)
    if (!fill()) return false;
  std::istringstream head(buffer_.substr(0, end + 2));
  buffer_.erase(0, end + 4);
  request = {};
  request.connection = number_;
  std::string line;
  head >> request.method >> request.target;
  for (std::getline(head, line); std::getline(head, line, '\r'); head.ignore()) {
    std::string name = line.substr(0, line.find(':'));
    const std::size_t value = std::min(line.find_first_not_of(' ', name.size() + 1), line.size());
    for (char& c : name) c = static_cast<char>(std::tolower(c));
    request.fields.emplace_back(name, line.substr(value));
  }
  return true;
}

bool ServerConnection::readBody(ReceivedRequest& request) {
  const std::size_t length = std::strtoul(request.field("content-length").c_str(), nullptr, 10);
  while (buffer_.size() < length)
    if (!fill()) return false;
  request.body = buffer_.substr(0, length);
  buffer_.erase(0, length);
  server_.change([&] { server_.requests_.push_back(request); });
  return true;
}

bool ServerConnection::send(std::string_view bytes) {
  while (!bytes.empty() && socket_ >= 0) {
    const int size = static_cast<int>(bytes.size());
    const ssize_t sent = tls_ != nullptr
                             ? SSL_write(tls_, bytes.data(), size)
                             : ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    ERR_clear_error();
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return socket_ >= 0;
}

bool ServerConnection::answer(int status, std::string_view body, std::string_view extraFields) {
  std::string bytes = "HTTP/1.1 " + std::to_string(status) + " As told\r\n";
  if (status != 204) bytes += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  bytes.append(extraFields).append("\r\n").append(body);
  return send(bytes);
}

void ServerConnection::reset() {
  const linger now{1, 0};
  ::setsockopt(socket_, SOL_SOCKET, SO_LINGER, &now, sizeof now);
  close();
}

void ServerConnection::close() {
  if (socket_ < 0) return;
  server_.change([this] {
    server_.sockets_.erase(socket_);
    ::close(std::exchange(socket_, -1));
  });
}

LoopbackServer::LoopbackServer(ConnectionHandler handler, Options options)
    : handler_(std::move(handler)), options_(std::move(options)) {
  std::signal(SIGPIPE, SIG_IGN);  // the TLS library's writes
  listen();
}

LoopbackServer::LoopbackServer(RequestHandler handler, Options options)
    : LoopbackServer(ConnectionHandler([handler](ServerConnection& connection) {
                       ReceivedRequest request;
                       while (connection.readRequest(request)) handler(connection, request);
                     }),
                     std::move(options)) {}

void LoopbackServer::listen() {
  if (options_.certificate) {
    context_ = SSL_CTX_new(TLS_server_method());
    const Certificates& own = *options_.certificate;
    if (SSL_CTX_use_certificate_file(context_, own.certificatePath.c_str(), SSL_FILETYPE_PEM) !=
            1 ||
        SSL_CTX_use_PrivateKey_file(context_, own.keyPath.c_str(), SSL_FILETYPE_PEM) != 1)
      throw std::runtime_error("unable to read the server's certificate");
    if (options_.newestTLS != 0) {
      SSL_CTX_set_min_proto_version(context_, options_.newestTLS);
      SSL_CTX_set_max_proto_version(context_, options_.newestTLS);
      SSL_CTX_set_security_level(context_, 0);
    }
  }
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const plain = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener_, plain, length) != 0 || ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, plain, &length) != 0)
    throw std::runtime_error("unable to listen on the loopback");
  port_ = ntohs(address.sin_port);
  acceptor_ = std::thread([this] { acceptAll(); });
}

LoopbackServer::~LoopbackServer() {
  change([this] {
    stopping_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    for (const int socket : sockets_) ::shutdown(socket, SHUT_RDWR);
  });
  acceptor_.join();
  for (auto& thread : threads_) thread.join();
  ::close(listener_);
  SSL_CTX_free(context_);
}

void LoopbackServer::acceptAll() {
  for (;;) {
    const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    std::lock_guard lock(mutex_);
    if (stopping_ || socket < 0) {
      if (socket >= 0) ::close(socket);
      return;
    }
    const int yes = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    sockets_.insert(socket);
    threads_.emplace_back([this, socket, number = ++connections_] { serve(socket, number); });
  }
}

void LoopbackServer::serve(int socket, std::size_t number) {
  changed_.notify_all();
  ServerConnection connection(*this, socket, number);
  if (context_ == nullptr || connection.startTLS(context_)) handler_(connection);
}

std::string LoopbackServer::url(const std::string& path) const {
  return fmt::format("{}://127.0.0.1:{}{}", context_ ? "https" : "http", port_, path);
}

bool LoopbackServer::waitUntil(const std::function<bool()>& condition) const {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    std::unique_lock lock(mutex_);
    // What is waited for may also happen elsewhere.
    changed_.wait_for(lock, std::chrono::milliseconds(5));
    if (std::chrono::steady_clock::now() > deadline) return false;
  }
  return true;
}

void LoopbackServer::hold() {
  std::unique_lock lock(mutex_);
  const std::size_t before = releases_;
  ++held_;
  changed_.notify_all();
  changed_.wait(lock, [&] { return stopping_ || releases_ != before; });
  --held_;
}

}  // namespace skelda::testing
