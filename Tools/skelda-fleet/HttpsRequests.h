#pragma once

#include <curl/curl.h>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace skelda::fleet {

/// Many posts at once over few connections, on the calling thread: it sleeps in run() until
/// something happens. What is over the number of connections waits its turn, in order.
class HttpsRequests {
 public:
  struct Settings {
    std::string authority;  ///< of the servers' certificates, in PEM; empty for the system's
    std::size_t connections = 64;
    bool keepsConnections = true;
    std::chrono::milliseconds timeOut{0};
  };
  struct Result {
    long status = 0;      ///< 0 where there was no answer
    std::string problem;  ///< why, in words
    std::chrono::microseconds took{0};
  };
  struct Request {
    std::string url;
    std::string apiKey;
    /// Asked for when its turn has come.
    std::function<std::string()> body;
    /// May post; is called from run().
    std::function<void(const Result&, std::string body)> done;
  };

  /// Throws std::runtime_error where the system gives no descriptor.
  explicit HttpsRequests(const Settings& settings);
  ~HttpsRequests();
  HttpsRequests(const HttpsRequests&) = delete;
  HttpsRequests& operator=(const HttpsRequests&) = delete;

  void post(Request request);
  /// Does what there is to do, waiting for it at most so long.
  void run(std::chrono::milliseconds longest);
  /// Under way or waiting.
  std::size_t pending() const noexcept { return waiting_.size() + underWay_; }

 private:
  struct Transfer;
  static int socketChanged(CURL* easy, curl_socket_t socket, int what, void* self, void* known);
  static int timerChanged(CURLM* multi, long milliseconds, void* self);

  void beginWaiting();
  void begin(Transfer& transfer);
  void takeResults();

  const Settings settings_;
  CURLM* multi_;
  int epoll_;
  std::deque<Request> waiting_;
  std::vector<std::unique_ptr<Transfer>> transfers_;
  std::vector<Transfer*> idle_;
  std::size_t underWay_ = 0;
  std::chrono::steady_clock::time_point timer_ = std::chrono::steady_clock::time_point::max();
};

}  // namespace skelda::fleet
