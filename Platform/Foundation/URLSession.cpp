#include "Platform/Foundation/URLSession.h"

#include <utility>

#include "Platform/Foundation/URLSessionEngine.h"

namespace skelda::platform {

// -- URLSessionTask

URLSessionTask::URLSessionTask(std::shared_ptr<URLSession> session, URLRequest request)
    : originalRequest_(std::move(request)), session_(std::move(session)) {}

bool URLSessionTask::begin() {
  state_ = State::running;
  if (session_->taskDidStart()) return true;
  state_ = State::completed;
  session_.reset();
  return false;
}

void URLSessionTask::resume() {
  {
    const MutexLock lock(mutex_);
    if (state_ != State::suspended) return;
    if (!begin()) return;
  }
  URLSessionEngine::shared().start(shared_from_this());
}

void URLSessionTask::cancel() {
  bool wasRunning = false;
  {
    const MutexLock lock(mutex_);
    if (state_ == State::completed) return;
    wasRunning = state_ == State::running;
    if (!wasRunning && !begin()) return;
    cancelled_ = true;  // should the engine hear of this before it hears of the start
  }
  if (wasRunning) return URLSessionEngine::shared().cancel(shared_from_this());
  complete(nullptr, {}, urlError(kURLErrorCancelled));
}

HTTPURLResponseRef URLSessionTask::response() const {
  const MutexLock lock(mutex_);
  return response_;
}

bool URLSessionTask::isCancelled() const {
  const MutexLock lock(mutex_);
  return cancelled_;
}

std::shared_ptr<URLSession> URLSessionTask::session() const {
  const MutexLock lock(mutex_);
  return session_;
}

void URLSessionTask::complete(HTTPURLResponseRef response, Data body, ErrorRef error) {
  std::shared_ptr<URLSession> session;
  {
    const MutexLock lock(mutex_);
    if (state_ == State::completed) return;
    state_ = State::completed;
    response_ = std::move(response);
    session = std::move(session_);
  }
  const QueueRef queue = session->delegateQueue();
  try {
    queue->async([session, self = shared_from_this(), body = std::move(body),
                  error = std::move(error)]() mutable {
      if (auto delegate = session->delegate()) {
        if (!body.empty()) delegate->didReceiveData(*session, *self, std::move(body));
        delegate->didCompleteWithError(*session, *self, error);
      }
      session->taskDidEnd();
    });
  } catch (const std::bad_alloc&) {
    // Nobody was told: it can be completed another time.
    const MutexLock lock(mutex_);
    state_ = State::running;
    session_ = std::move(session);
    throw;
  }
}

// -- URLSession

URLSession::URLSession(URLSessionConfiguration configuration,
                       std::shared_ptr<URLSessionDelegate> delegate, QueueRef delegateQueue)
    : configuration_(configuration),
      queue_(delegateQueue != nullptr ? std::move(delegateQueue) : Queue::serial("URLSession")),
      delegate_(std::move(delegate)) {}

std::shared_ptr<URLSession> URLSession::session(URLSessionConfiguration configuration,
                                                std::shared_ptr<URLSessionDelegate> delegate,
                                                QueueRef delegateQueue) {
  return std::shared_ptr<URLSession>(
      new URLSession(configuration, std::move(delegate), std::move(delegateQueue)));
}

URLSessionTaskRef URLSession::dataTask(URLRequest request) {
  return URLSessionTaskRef(new URLSessionTask(shared_from_this(), std::move(request)));
}

std::shared_ptr<URLSessionDelegate> URLSession::delegate() const {
  const MutexLock lock(mutex_);
  return delegate_;
}

bool URLSession::taskDidStart() {
  const MutexLock lock(mutex_);
  if (invalidated_ && startedTasks_ == 0) return false;
  ++startedTasks_;
  return true;
}

void URLSession::taskDidEnd() {
  std::shared_ptr<URLSessionDelegate> released;
  const MutexLock lock(mutex_);
  if (--startedTasks_ == 0 && invalidated_) released = std::move(delegate_);
}

void URLSession::finishTasksAndInvalidate() {
  std::shared_ptr<URLSessionDelegate> released;
  const MutexLock lock(mutex_);
  invalidated_ = true;
  if (startedTasks_ == 0) released = std::move(delegate_);
}

}  // namespace skelda::platform
