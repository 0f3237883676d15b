#include "Tools/skelda-doctor/Probe.h"

#include <fmt/format.h>

#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <optional>

#include "Platform/Foundation/URLError.h"
#include "Platform/Foundation/URLSession.h"

namespace skelda::tools {
namespace {

/// Certificates are made for such slips of the clock and not for larger ones.
constexpr double kMostSkewInSeconds = 300;

class Answer : public platform::URLSessionDelegate {
 public:
  void didCompleteWithError(platform::URLSession&, platform::URLSessionTask& task,
                            const platform::ErrorRef& error) override {
    const std::lock_guard lock(mutex_);
    response_ = task.response();
    error_ = error;
    ended_ = true;
    condition_.notify_all();
  }
  /// The server's own answer counts, wherever it points.
  void willPerformHTTPRedirection(platform::URLSession&, platform::URLSessionTask&,
                                  const platform::HTTPURLResponse&, platform::URLRequest,
                                  RedirectDecision decide) override {
    decide(std::nullopt);
  }
  bool wait(std::chrono::milliseconds longest) {
    std::unique_lock lock(mutex_);
    return condition_.wait_for(lock, longest, [this] { return ended_; });
  }
  platform::HTTPURLResponseRef response() const { return response_; }
  platform::ErrorRef error() const { return error_; }

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
  platform::HTTPURLResponseRef response_;
  platform::ErrorRef error_;
  bool ended_ = false;
};

/// How far this machine's clock is ahead of the server's, by its Date header.
std::optional<double> skewOf(const platform::HTTPURLResponse& response) {
  for (const auto& [name, value] : response.headerFields) {
    if (value.text() == nullptr || ::strcasecmp(name.c_str(), "Date") != 0) continue;
    struct ::tm parts {};
    if (::strptime(value.text()->c_str(), "%a, %d %b %Y %H:%M:%S", &parts) == nullptr) continue;
    return std::difftime(::time(nullptr), ::timegm(&parts));
  }
  return std::nullopt;
}

SkeldaFinding ofError(const std::string& address, const platform::Error& error) {
  const std::string reason = error.localizedDescription();
  switch (error.code()) {
    case platform::kURLErrorServerCertificateUntrusted: {
      const char* const file = std::getenv("SSL_CERT_FILE");
      return {
          "certificate", true,
          fmt::format("The certificate of {} is not trusted: {}", address, reason),
          fmt::format("Have the server show one of a trusted authority for that name, or name "
                      "the file of its authority in SSL_CERT_FILE (now: {}), for the program as "
                      "well; and see this machine's clock.",
                      file != nullptr ? file : "not set")};
    }
    case platform::kURLErrorCannotFindHost:
      return {"no-host", true, fmt::format("The name in {} does not resolve.", address),
              "See the address given to setServerURL(), and the machine's name server."};
    case platform::kURLErrorCannotConnectToHost:
      return {"no-connection", true, fmt::format("Nobody listens at {}: {}", address, reason),
              "See host and port of the address, and whether the server runs."};
    case platform::kURLErrorSecureConnectionFailed:
      return {"no-tls", true, fmt::format("{} does not speak TLS as needed: {}", address, reason),
              "See whether it is http that is meant, and that the server speaks TLS 1.2 or later."};
    default:
      return {"no-answer-now", true, fmt::format("{} did not answer: {}", address, reason),
              "See the network between this machine and the server."};
  }
}

}  // namespace

std::vector<SkeldaFinding> probe(const std::string& address, std::chrono::milliseconds longest) {
  const auto answer = std::make_shared<Answer>();
  platform::URLRequest request;
  request.url = address;
  request.method = "HEAD";
  request.timeoutInterval = longest;
  const auto session =
      platform::URLSession::session({.responseBodyLimit = 0, .resourceTimeout = longest}, answer);
  const auto task = session->dataTask(std::move(request));
  task->resume();
  if (!answer->wait(longest + std::chrono::seconds(2))) {
    return {{"no-answer-now", true, fmt::format("{} did not answer in time.", address),
             "See the network between this machine and the server."}};
  }
  if (answer->error() != nullptr) return {ofError(address, *answer->error())};
  std::vector<SkeldaFinding> findings;
  const auto& response = *answer->response();
  findings.push_back(
      {"reached", false,
       fmt::format("{} answers, {} to a HEAD without a key.", address, response.statusCode), ""});
  const auto skew = skewOf(response);
  if (skew && std::abs(*skew) > kMostSkewInSeconds) {
    findings.push_back(
        {"clock", false,
         fmt::format("This machine's clock is {} s {} the server's.", std::llround(std::abs(*skew)),
                     *skew > 0 ? "ahead of" : "behind"),
         "Set it: events carry its times, and certificates are held against it."});
  }
  return findings;
}

}  // namespace skelda::tools
