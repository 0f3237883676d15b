#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Fuzz/Fuzz.h"
#include "Platform/Foundation/URLSession.h"

// A hostile server on the loopback: it answers a request with the given bytes, in pieces, and hangs
// up. The task ends once, soon, with a bounded body, and no request goes anywhere else.

namespace {

class Server {
 public:
  Server() {
    std::signal(SIGPIPE, SIG_IGN);
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* generic = reinterpret_cast<sockaddr*>(&address);
    require(::bind(listener_, generic, sizeof address) == 0 && ::listen(listener_, 16) == 0);
    require(::getsockname(listener_, generic, &length) == 0);
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    std::thread([this] { serve(); }).detach();
  }
  const std::string& url() const { return url_; }
  void setAnswer(std::string answer, std::size_t piece) {
    std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
    piece_ = piece;
  }

 private:
  void serve() {
    for (;;) {
      const int socket = ::accept(listener_, nullptr, nullptr);
      if (socket < 0) continue;
      std::string answer;
      std::size_t piece = 0;
      {
        std::lock_guard lock(mutex_);
        answer = answer_;
        piece = piece_;
      }
      std::array<char, 4096> ignored;
      static_cast<void>(::recv(socket, ignored.data(), ignored.size(), 0));
      for (std::string_view left = answer; !left.empty();) {
        const auto sent = ::send(socket, left.data(), std::min(piece, left.size()), MSG_NOSIGNAL);
        if (sent <= 0) break;
        left.remove_prefix(static_cast<std::size_t>(sent));
      }
      ::shutdown(socket, SHUT_WR);
      pollfd client{socket, POLLIN, 0};
      while (::poll(&client, 1, 1000) > 0 &&
             ::recv(socket, ignored.data(), ignored.size(), 0) > 0) {
      }
      ::close(socket);
    }
  }

  int listener_ = -1;
  std::string url_;
  std::mutex mutex_;
  std::string answer_;
  std::size_t piece_ = 1;
};

class Probe final : public platform::URLSessionDelegate {
 public:
  explicit Probe(std::string home) : home_(std::move(home)) {}
  void didReceiveData(platform::URLSession& session, platform::URLSessionTask&,
                      platform::Data data) override {
    received_ += data.length();
    require(received_ <= session.configuration().responseBodyLimit);
  }
  void willPerformHTTPRedirection(platform::URLSession&, platform::URLSessionTask&,
                                  const platform::HTTPURLResponse&, platform::URLRequest proposed,
                                  RedirectDecision decide) override {
    require(platform::isWellFormedURL(proposed.url));
    const bool follow =
        ++redirects_ < 4 && (proposed.url == home_ || proposed.url.starts_with(home_ + "/"));
    decide(follow ? std::optional(std::move(proposed)) : std::nullopt);
  }
  void didCompleteWithError(platform::URLSession&, platform::URLSessionTask& task,
                            const platform::ErrorRef& error) override {
    std::lock_guard lock(mutex_);
    require(++completions_ == 1);
    require(error == nullptr || error->code() != platform::kURLErrorTimedOut);
    require(error != nullptr || task.response() != nullptr);
    changed_.notify_all();
  }
  void wait() {
    std::unique_lock lock(mutex_);
    require(changed_.wait_for(lock, std::chrono::seconds(20), [this] { return completions_ > 0; }));
  }

 private:
  const std::string home_;
  std::size_t received_ = 0;
  int redirects_ = 0;
  std::mutex mutex_;
  std::condition_variable changed_;
  int completions_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static auto& server = *new Server();
  if (size == 0) return 0;
  server.setAnswer(std::string(reinterpret_cast<const char*>(bytes) + 1, size - 1),
                   std::size_t{bytes[0]} + 1);
  platform::URLRequest request;
  request.url = server.url() + "/v1/skd.do";
  request.method = "POST";
  request.body = std::make_shared<const platform::Data>(std::string("bytes"));
  request.timeoutInterval = std::chrono::seconds(10);
  const auto probe = std::make_shared<Probe>(server.url());
  const auto session = platform::URLSession::session({}, probe);
  session->dataTask(std::move(request))->resume();
  session->finishTasksAndInvalidate();
  probe->wait();
  return 0;
}
