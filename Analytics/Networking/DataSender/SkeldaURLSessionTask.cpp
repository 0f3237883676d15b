#include "Analytics/Networking/DataSender/SkeldaURLSessionTask.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Analytics/Networking/DataSender/SkeldaURLSessionDelegate.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"

namespace {

constexpr std::size_t kLongestLoggedBody = 2000;  // bytes, this length excluded

/// Nothing for bytes that are not ASCII; control characters do not reach the log.
std::string loggableASCII(std::string_view bytes) {
  std::string text(bytes);
  for (char& c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return "(null)";
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '.';
  }
  return text;
}

void logRequest(const platform::URLRequest& request) {
  SKELDA_LOG(2, "[SkeldaURLSessionTask sendMethod] {}: {}", request.method, request.url);
  SKELDA_LOG(2, "[SkeldaURLSessionTask sendMethod] headers: {}",
             skelda::shownValue(platform::Value(request.headerFields).description()));
  if (request.body == nullptr) return;
  const std::size_t length = request.body->length();
  if (length < kLongestLoggedBody) {
    SKELDA_LOG(2, "Skelda: ({} bytes) {}", length,
               skelda::shownValue(loggableASCII(request.body->view())));
  } else {
    SKELDA_LOG(2, "Skelda: ({} bytes) Body is too long to display", length);
  }
}

}  // namespace

std::string_view SkeldaURLSessionTask::httpMethodToString(std::int32_t method) noexcept {
  constexpr std::array<std::string_view, 7> kNames{"GET",  "PUT",     "POST",   "DELETE",
                                                   "HEAD", "OPTIONS", "CONNECT"};
  if (method < 0 || static_cast<std::size_t>(method) >= kNames.size()) return {};
  return kNames[static_cast<std::size_t>(method)];
}

SkeldaURLSessionTask::TaskRef SkeldaURLSessionTask::get(const std::string& url,
                                                        DelegateRef delegate) {
  return get(url, {}, std::move(delegate));
}

SkeldaURLSessionTask::TaskRef SkeldaURLSessionTask::get(const std::string& url,
                                                        platform::Dictionary headerFields,
                                                        DelegateRef delegate) {
  return sendMethod(0, url, nullptr, std::move(headerFields), std::move(delegate));
}

SkeldaURLSessionTask::TaskRef SkeldaURLSessionTask::post(const std::string& url,
                                                         DelegateRef delegate) {
  return post(url, {}, std::move(delegate));
}

SkeldaURLSessionTask::TaskRef SkeldaURLSessionTask::post(const std::string& url,
                                                         platform::Dictionary headerFields,
                                                         DelegateRef delegate) {
  return sendMethod(2, url, nullptr, std::move(headerFields), std::move(delegate));
}

SkeldaURLSessionTask::TaskRef SkeldaURLSessionTask::sendMethod(std::int32_t method,
                                                               const std::string& to, BodyRef body,
                                                               platform::Dictionary headerFields,
                                                               DelegateRef delegate,
                                                               bool startImmediately) {
  return sendMethod(method, to, std::move(body), std::move(headerFields),
                    kSkeldaURLSessionTaskDefaultTimeoutInterval,
                    platform::URLRequestCachePolicy::reloadIgnoringLocalAndRemoteCacheData,
                    std::move(delegate), startImmediately);
}

SkeldaURLSessionTask::TaskRef SkeldaURLSessionTask::sendMethod(
    std::int32_t method, const std::string& to, BodyRef body, platform::Dictionary headerFields,
    double timeoutInterval, platform::URLRequestCachePolicy useCachePolicy, DelegateRef delegate,
    bool startImmediately) {
  SkeldaUtil::assert_(platform::isWellFormedURL(to), "nil != url");
  platform::URLRequest request;
  request.url = to;
  request.method = httpMethodToString(method);
  request.headerFields = std::move(headerFields);
  request.body = std::move(body);
  request.timeoutInterval = std::chrono::milliseconds(
      static_cast<std::int64_t>(std::clamp(timeoutInterval, 0.0, 1e6) * 1000));
  request.cachePolicy = useCachePolicy;
  request.handlesCookies = false;
  request.usesPipelining = true;
  logRequest(request);

  TaskRef task(new SkeldaURLSessionTask());
  task->sessionDelegate_ =
      platform::makeCounted<SkeldaURLSessionDelegate>(task, std::move(delegate), request);
  const auto session = platform::URLSession::session({}, task->sessionDelegate_);
  task->task_ = session->dataTask(std::move(request));
  if (startImmediately) task->resumeTask();
  return task;
}

void SkeldaURLSessionTask::resumeTask() {
  sessionDelegate_->holdTask(shared_from_this());
  task_->resume();
}

void SkeldaURLSessionTask::cancelTask() {
  sessionDelegate_->holdTask(shared_from_this());
  task_->cancel();
}
