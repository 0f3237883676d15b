#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Analytics/Networking/DataSender/SkeldaHTTPURLResponse.h"
#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URLSession.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

class SkeldaURLSessionDelegate;
class SkeldaURLSessionTask;

inline constexpr double kSkeldaURLSessionTaskDefaultTimeoutInterval = 20.0;  // seconds

/// Hears how a request ended, exactly once, on the session's own serial queue.
class SkeldaURLSessionTaskDelegate {
 public:
  static constexpr std::string_view kProtocolName = "SkeldaURLSessionTaskDelegate";
  using TaskRef = std::shared_ptr<SkeldaURLSessionTask>;
  using ResponseRef = std::shared_ptr<const SkeldaHTTPURLResponse>;

  virtual void skeldaUrlRequestDidSucceed(const TaskRef&, const ResponseRef&) {}
  virtual void skeldaUrlRequestDidFail(const TaskRef&, const ResponseRef&) {}
  virtual void skeldaUrlRequestDidCancel(const TaskRef&, const ResponseRef&) {}

 protected:
  ~SkeldaURLSessionTaskDelegate() = default;
};

/// One HTTP request on a platform session of its own. Made by a class function, started at once or
/// by resumeTask(); once started or cancelled it stays alive until its end has been reported, which
/// a cancelled one reports as a failure. Holds the delegate weakly. The scalars may be read from
/// any thread; tag and parameters belong to the caller.
class SkeldaURLSessionTask final : public platform::Object,
                                   public std::enable_shared_from_this<SkeldaURLSessionTask> {
 public:
  using TaskRef = std::shared_ptr<SkeldaURLSessionTask>;
  using DelegateRef = std::weak_ptr<SkeldaURLSessionTaskDelegate>;
  using BodyRef = std::shared_ptr<const platform::Data>;

  static TaskRef sendMethod(std::int32_t method, const std::string& to, BodyRef body,
                            platform::Dictionary headerFields, DelegateRef delegate,
                            bool startImmediately = true);
  /// Method codes: 0 GET, 1 PUT, 2 POST, 3 DELETE, 4 HEAD, 5 OPTIONS, 6 CONNECT. The time-out is in
  /// seconds without progress. Where `to` is no URL (reported) the task fails once it is started.
  static TaskRef sendMethod(std::int32_t method, const std::string& to, BodyRef body,
                            platform::Dictionary headerFields, double timeoutInterval,
                            platform::URLRequestCachePolicy useCachePolicy, DelegateRef delegate,
                            bool startImmediately);
  /// Empty for an unknown code.
  static std::string_view httpMethodToString(std::int32_t method) noexcept;

  std::string_view className() const noexcept override { return "SkeldaURLSessionTask"; }
  void resumeTask();
  void cancelTask();

  const std::string& tag() const noexcept { return tag_; }
  void setTag(std::string tag) { tag_ = std::move(tag); }
  std::int32_t redirectsCount() const noexcept { return redirectsCount_; }
  void setRedirectsCount(std::int32_t count) noexcept { redirectsCount_ = count; }
  /// 0 is no limit.
  std::int32_t redirectsLimit() const noexcept { return redirectsLimit_; }
  const platform::URLSessionTaskRef& task() const noexcept { return task_; }

  // -- Fixed by the system, and not called by the agent itself
  static TaskRef get(const std::string& url, DelegateRef delegate);
  static TaskRef get(const std::string& url, platform::Dictionary headerFields,
                     DelegateRef delegate);
  static TaskRef post(const std::string& url, DelegateRef delegate);
  static TaskRef post(const std::string& url, platform::Dictionary headerFields,
                      DelegateRef delegate);
  platform::Dictionary& taskParameters() noexcept { return taskParameters_; }
  void setRedirectsLimit(std::int32_t limit) noexcept { redirectsLimit_ = limit; }

 private:
  SkeldaURLSessionTask() = default;

  std::string tag_;
  platform::Dictionary taskParameters_;
  std::atomic<std::int32_t> redirectsCount_ = 0;
  std::atomic<std::int32_t> redirectsLimit_ = 0;
  std::shared_ptr<SkeldaURLSessionDelegate> sessionDelegate_;
  platform::URLSessionTaskRef task_;
};
