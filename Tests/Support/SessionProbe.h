#pragma once

#include "Platform/Foundation/URLSession.h"
#include "Tests/Support/LoopbackServer.h"

namespace skelda::testing {

/// A session delegate that keeps what it is told.
class SessionProbe : public URLSessionDelegate {
 public:
  using RedirectRule = std::function<std::optional<URLRequest>(URLRequest proposed)>;

  explicit SessionProbe(RedirectRule rule = nullptr) : rule_(std::move(rule)) {}

  void didReceiveData(URLSession&, URLSessionTask&, Data data) override {
    std::lock_guard lock(mutex_);
    body.append(data.view());
  }
  void willPerformHTTPRedirection(URLSession&, URLSessionTask&, const HTTPURLResponse& redirecting,
                                  URLRequest proposed, RedirectDecision decide) override {
    {
      std::lock_guard lock(mutex_);
      redirects.push_back(redirecting.statusCode);
    }
    decide(rule_ ? rule_(std::move(proposed)) : std::optional(std::move(proposed)));
  }
  void didCompleteWithError(URLSession& session, URLSessionTask& task,
                            const ErrorRef& error) override {
    std::lock_guard lock(mutex_);
    ++completions;
    wasOnQueue = session.delegateQueue()->isCurrent();
    code = error != nullptr ? error->code() : 0;
    isURLError = error == nullptr || error->hasDomain(urlErrorDomain());
    response = task.response();
    changed_.notify_all();
  }

  bool wait() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [this] { return completions > 0; });
  }
  std::int64_t status() const { return response != nullptr ? response->statusCode : 0; }

  // To be read after wait().
  int completions = 0;
  bool wasOnQueue = false;
  bool isURLError = false;
  std::int64_t code = 0;
  std::vector<std::int64_t> redirects;
  Data body;
  HTTPURLResponseRef response;

 private:
  const RedirectRule rule_;
  std::mutex mutex_;
  std::condition_variable changed_;
};

/// Starts a request in a session of its own.
inline URLSessionTaskRef startRequest(const std::shared_ptr<SessionProbe>& probe,
                                      URLRequest request,
                                      URLSessionConfiguration configuration = {}) {
  const auto session = URLSession::session(configuration, probe);
  auto task = session->dataTask(std::move(request));
  task->resume();
  session->finishTasksAndInvalidate();
  return task;
}

inline URLRequest postRequest(const std::string& url, std::string body) {
  URLRequest request;
  request.url = url;
  request.method = "POST";
  request.headerFields = {{"content-type", "application/octet-stream"}, {"X-Key", "secret"}};
  request.body = std::make_shared<const Data>(std::move(body));
  return request;
}

}  // namespace skelda::testing
