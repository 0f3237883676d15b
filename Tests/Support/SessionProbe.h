#pragma once

#include "Platform/Foundation/URLSession.h"
#include "Tests/Support/LoopbackServer.h"

namespace skelda::testing {

/// Keeps what it is told, its ends in a record: the rest is to be read when there is one.
class SessionProbe : public URLSessionDelegate, public Recorded<std::int64_t> {
 public:
  using RedirectRule = std::function<std::optional<URLRequest>(URLRequest proposed)>;

  explicit SessionProbe(RedirectRule rule = nullptr) : rule_(std::move(rule)) {}

  void didReceiveData(URLSession&, URLSessionTask&, Data data) override {
    body.append(data.view());
  }
  void willPerformHTTPRedirection(URLSession&, URLSessionTask&, const HTTPURLResponse& redirecting,
                                  URLRequest proposed, RedirectDecision decide) override {
    redirects.push_back(redirecting.statusCode);
    decide(rule_ ? rule_(std::move(proposed)) : std::optional(std::move(proposed)));
  }
  void didCompleteWithError(URLSession& of, URLSessionTask& task, const ErrorRef& error) override {
    wasOnQueue = of.delegateQueue()->isCurrent();
    code = error != nullptr ? error->code() : 0;
    isURLError = error == nullptr || error->hasDomain(urlErrorDomain());
    response = task.response();
    add(code);
  }

  bool ends() { return !wait(1).empty(); }
  std::int64_t status() const { return response != nullptr ? response->statusCode : 0; }

  bool wasOnQueue = false;
  bool isURLError = false;
  std::int64_t code = 0;
  std::vector<std::int64_t> redirects;
  Data body;
  HTTPURLResponseRef response;

 private:
  const RedirectRule rule_;
};

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
