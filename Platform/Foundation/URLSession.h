#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Base/Mutex.h"
#include "Platform/Dispatch/Queue.h"
#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/URLError.h"
#include "Platform/Foundation/Value.h"

namespace skelda::platform {

class URLSession;
class URLSessionTask;

enum class URLRequestCachePolicy {
  useProtocolCachePolicy = 0,
  reloadIgnoringLocalCacheData = 1,
  reloadIgnoringLocalAndRemoteCacheData = 4,
};

/// What is asked of a server. A value.
///
/// On the wire stand the header fields given here and what HTTP itself needs (the host, the length
/// of a body), nothing else: no user agent, no "Accept", no cookies, no "Expect". There is no
/// cache, so the policies do not differ; no proxy is used, whatever the environment says.
struct URLRequest {
  std::string url;
  std::string method = "GET";
  /// Text to text.
  Dictionary headerFields;
  /// Shared, never copied and never changed while the request runs; null for none.
  std::shared_ptr<const Data> body;
  /// How long a request may make no progress (nothing sent, nothing received).
  std::chrono::milliseconds timeoutInterval{60'000};
  URLRequestCachePolicy cachePolicy = URLRequestCachePolicy::useProtocolCachePolicy;
  /// Kept for the caller: cookies are neither kept nor sent.
  bool handlesCookies = true;
  /// Rather share a connection with other requests, where the server can, than open one more.
  bool usesPipelining = false;
};

/// Whether a text can be the URL of a request.
bool isWellFormedURL(const std::string& text) noexcept;

/// What a server answered: status, header fields (names as they came, those of one name joined by
/// ", ") and the URL that was asked in the end. Immutable.
struct HTTPURLResponse {
  std::string url;
  std::int64_t statusCode = 0;
  Dictionary headerFields;
};
using HTTPURLResponseRef = std::shared_ptr<const HTTPURLResponse>;

/// Hears of a session's tasks, on the session's delegate queue, one call at a time. Nothing may be
/// thrown out of a call.
class URLSessionDelegate {
 public:
  using RedirectDecision = std::function<void(std::optional<URLRequest>)>;

  /// The answer's body, as far as it is kept; before the task's last call.
  virtual void didReceiveData(URLSession&, URLSessionTask&, Data) {}
  /// The server sent the task elsewhere. `proposed` is what the platform would do: the same method,
  /// header fields and body under the new URL; for a 303, a GET. `decide` is to be called, from any
  /// thread, with the request to go on with, or with nothing: then the redirecting answer is the
  /// task's answer. Redirects from https to http, and to what is neither, are not proposed: there,
  /// too, the redirecting answer stands.
  virtual void willPerformHTTPRedirection(URLSession&, URLSessionTask&,
                                          const HTTPURLResponse& /*response*/, URLRequest proposed,
                                          RedirectDecision decide) {
    decide(std::move(proposed));
  }
  /// The task has ended, with an error of urlErrorDomain() or without. Exactly once for a task that
  /// was resumed or cancelled, and the last call about it.
  virtual void didCompleteWithError(URLSession& session, URLSessionTask& task,
                                    const ErrorRef& error) = 0;

 protected:
  ~URLSessionDelegate() = default;
};

struct URLSessionConfiguration {
  /// Bytes of an answer's body that are kept. What is over is dropped; an answer that goes on and
  /// on is cut off once the request has been sent, and counts as whole.
  std::size_t responseBodyLimit = 64 * 1024;
  /// How long a task may take in all, redirects included.
  std::chrono::milliseconds resourceTimeout = std::chrono::minutes(10);
};

/// One request on its way. Every operation is safe from any thread.
class URLSessionTask : public std::enable_shared_from_this<URLSessionTask> {
 public:
  /// Starts the task, once.
  void resume();
  /// Ends it with kURLErrorCancelled unless it has ended already.
  void cancel();

  const URLRequest& originalRequest() const noexcept { return originalRequest_; }
  /// The answer, once the task is complete; null where none came.
  HTTPURLResponseRef response() const;

 private:
  friend class URLSession;
  friend class URLSessionEngine;
  enum class State { suspended, running, completed };
  URLSessionTask(std::shared_ptr<URLSession> session, URLRequest request);
  /// The task runs from here on, or has ended unheard because its session is invalid.
  bool begin() REQUIRES(mutex_);
  /// The one end of a task, on whichever thread: posts the delegate's last calls.
  void complete(HTTPURLResponseRef response, Data body, ErrorRef error);
  bool isCancelled() const;
  std::shared_ptr<URLSession> session() const;

  const URLRequest originalRequest_;
  mutable Mutex mutex_;
  State state_ GUARDED_BY(mutex_) = State::suspended;
  bool cancelled_ GUARDED_BY(mutex_) = false;
  std::shared_ptr<URLSession> session_ GUARDED_BY(mutex_);  // until the task is complete
  HTTPURLResponseRef response_ GUARDED_BY(mutex_);
};
using URLSessionTaskRef = std::shared_ptr<URLSessionTask>;

/// Tasks that share a delegate. All sessions share one network thread, which is there while a
/// transfer runs and for a few seconds after it, and one set of connections, which goes with it: a
/// session for each request costs nothing.
///
/// Certificates and host names are always verified and TLS 1.2 is the least. SSL_CERT_FILE and
/// SSL_CERT_DIR name other authorities than the system's. Only http and https are spoken.
class URLSession : public std::enable_shared_from_this<URLSession> {
 public:
  /// Without a queue the session makes a serial one of its own. The delegate is held until the
  /// session is invalidated.
  static std::shared_ptr<URLSession> session(URLSessionConfiguration configuration,
                                             std::shared_ptr<URLSessionDelegate> delegate,
                                             QueueRef delegateQueue = nullptr);
  /// A suspended task.
  URLSessionTaskRef dataTask(URLRequest request);
  /// Lets the delegate go once the tasks that were started have ended. Tasks started later end at
  /// once and tell nobody.
  void finishTasksAndInvalidate();

  const QueueRef& delegateQueue() const noexcept { return queue_; }
  const URLSessionConfiguration& configuration() const noexcept { return configuration_; }

 private:
  friend class URLSessionTask;
  friend class URLSessionEngine;
  URLSession(URLSessionConfiguration configuration, std::shared_ptr<URLSessionDelegate> delegate,
             QueueRef delegateQueue);
  std::shared_ptr<URLSessionDelegate> delegate() const;
  /// False after invalidation.
  bool taskDidStart();
  void taskDidEnd();

  const URLSessionConfiguration configuration_;
  const QueueRef queue_;
  mutable Mutex mutex_;
  std::shared_ptr<URLSessionDelegate> delegate_ GUARDED_BY(mutex_);
  std::size_t startedTasks_ GUARDED_BY(mutex_) = 0;
  bool invalidated_ GUARDED_BY(mutex_) = false;
};
using URLSessionRef = std::shared_ptr<URLSession>;

}  // namespace skelda::platform
