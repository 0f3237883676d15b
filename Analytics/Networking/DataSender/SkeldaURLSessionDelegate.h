#pragma once

#include <cstdint>
#include <memory>

#include "Analytics/Networking/DataSender/SkeldaURLSessionTask.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Foundation/URLSession.h"
#include "Platform/Platform.h"

/// The delegate of one task's platform session: gathers the answer, decides redirects, reports the
/// end. Called on the session's queue.
///
/// Redirects: a 307 is followed with a copy of the first request, header fields and all, whichever
/// host it names; every other one with what the platform proposes, which also keeps the header
/// fields. So the key in them reaches the servers that the first server, whose certificate was
/// verified, sends us to; it never goes from https to http.
class SkeldaURLSessionDelegate : public platform::Object, public platform::URLSessionDelegate {
 public:
  using TaskRef = std::shared_ptr<SkeldaURLSessionTask>;

  SkeldaURLSessionDelegate(std::weak_ptr<SkeldaURLSessionTask> task,
                           std::weak_ptr<SkeldaURLSessionTaskDelegate> taskDelegate,
                           platform::URLRequest originalRequest);

  std::string_view className() const noexcept override { return "SkeldaURLSessionDelegate"; }
  /// Keeps the task alive until its end has been reported. Any thread.
  void holdTask(TaskRef task);
  void didReceiveData(platform::URLSession&, platform::URLSessionTask&,
                      platform::Data data) override;
  void willPerformHTTPRedirection(platform::URLSession&, platform::URLSessionTask&,
                                  const platform::HTTPURLResponse& response,
                                  platform::URLRequest proposed, RedirectDecision decide) override;
  void didCompleteWithError(platform::URLSession& session, platform::URLSessionTask& task,
                            const platform::ErrorRef& error) override;

 private:
  TaskRef takeTask();
  void report(const TaskRef& task);

  const std::weak_ptr<SkeldaURLSessionTask> task_;
  const std::weak_ptr<SkeldaURLSessionTaskDelegate> taskDelegate_;
  const platform::URLRequest originalRequest_;
  platform::Data body_;
  platform::HTTPURLResponseRef response_;
  platform::ErrorRef error_;
  std::int32_t redirectCount_ = 0;

  platform::Mutex mutex_;
  TaskRef heldTask_ GUARDED_BY(mutex_);
  bool done_ GUARDED_BY(mutex_) = false;
};
