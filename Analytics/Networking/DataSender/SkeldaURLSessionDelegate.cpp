#include "Analytics/Networking/DataSender/SkeldaURLSessionDelegate.h"

#include <utility>

#include "Analytics/Streaming/Data Providers/SkeldaNetworkReachabilityDataProvider.h"
#include "Analytics/Utils/SkeldaGuards.h"
#include "Platform/Base/Counted.h"

SkeldaURLSessionDelegate::SkeldaURLSessionDelegate(
    std::weak_ptr<SkeldaURLSessionTask> task,
    std::weak_ptr<SkeldaURLSessionTaskDelegate> taskDelegate, platform::URLRequest originalRequest)
    : task_(std::move(task)),
      taskDelegate_(std::move(taskDelegate)),
      originalRequest_(std::move(originalRequest)) {}

void SkeldaURLSessionDelegate::holdTask(TaskRef task) {
  const platform::MutexLock lock(mutex_);
  if (!done_) heldTask_ = std::move(task);
}

SkeldaURLSessionDelegate::TaskRef SkeldaURLSessionDelegate::takeTask() {
  const platform::MutexLock lock(mutex_);
  done_ = true;
  return std::exchange(heldTask_, nullptr);
}

void SkeldaURLSessionDelegate::didReceiveData(platform::URLSession&, platform::URLSessionTask&,
                                              platform::Data data) {
  if (body_.empty()) {
    body_ = std::move(data);
  } else {
    body_.append(data.view());
  }
}

void SkeldaURLSessionDelegate::willPerformHTTPRedirection(platform::URLSession&,
                                                          platform::URLSessionTask&,
                                                          const platform::HTTPURLResponse& response,
                                                          platform::URLRequest proposed,
                                                          RedirectDecision decide) {
  const TaskRef task = task_.lock();
  if (task == nullptr) return decide(std::nullopt);
  ++redirectCount_;
  const std::int32_t limit = task->redirectsLimit();
  if (limit != 0 && redirectCount_ > limit) return decide(std::nullopt);
  task->setRedirectsCount(redirectCount_);
  if (response.statusCode != 307) return decide(std::move(proposed));
  platform::URLRequest again = originalRequest_;
  again.url = std::move(proposed.url);
  decide(std::move(again));
}

void SkeldaURLSessionDelegate::didCompleteWithError(platform::URLSession& session,
                                                    platform::URLSessionTask& task,
                                                    const platform::ErrorRef& error) {
  const TaskRef ended = takeTask();
  response_ = task.response();
  error_ = error;
  skelda::guarded([&] { report(ended); })();
  session.finishTasksAndInvalidate();
}

void SkeldaURLSessionDelegate::report(const TaskRef& task) {
  const auto response =
      platform::makeCounted<const SkeldaHTTPURLResponse>(response_, std::move(body_), error_);
  const auto taskDelegate = taskDelegate_.lock();
  if (error_ == nullptr && response->isSuccess()) {
    if (taskDelegate != nullptr) taskDelegate->skeldaUrlRequestDidSucceed(task, response);
    return;
  }
  SkeldaNetworkReachabilityDataProvider::sharedInstance()->setLastNetworkOperationError(error_);
  if (taskDelegate != nullptr) taskDelegate->skeldaUrlRequestDidFail(task, response);
}
