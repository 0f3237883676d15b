#pragma once

#include <cstdint>
#include <memory>

#include "Analytics/Networking/DataSender/SkeldaURLSessionTask.h"
#include "Platform/Foundation/URLSession.h"
#include "Platform/Platform.h"

/// The delegate of one task's platform session: gathers the answer, decides redirects, reports the
/// end. Used on the session's queue only.
class SkeldaURLSessionDelegate : public platform::Object, public platform::URLSessionDelegate {
 public:
  /// Holds the task until its end has been reported.
  SkeldaURLSessionDelegate(std::shared_ptr<SkeldaURLSessionTask> task,
                           std::weak_ptr<SkeldaURLSessionTaskDelegate> taskDelegate,
                           platform::URLRequest originalRequest);

  std::string_view className() const noexcept override { return "SkeldaURLSessionDelegate"; }
  void didReceiveData(platform::URLSession&, platform::URLSessionTask&,
                      platform::Data data) override;
  void willPerformHTTPRedirection(platform::URLSession&, platform::URLSessionTask&,
                                  const platform::HTTPURLResponse& response,
                                  platform::URLRequest proposed, RedirectDecision decide) override;
  void didCompleteWithError(platform::URLSession& session, platform::URLSessionTask& task,
                            const platform::ErrorRef& error) override;

  bool done() const noexcept { return done_; }
  std::int32_t redirectCount() const noexcept { return redirectCount_; }

 private:
  std::shared_ptr<SkeldaURLSessionTask> task_;
  std::weak_ptr<SkeldaURLSessionTaskDelegate> taskDelegate_;
  bool done_ = false;
  platform::Data body_;
  platform::HTTPURLResponseRef response_;
  platform::ErrorRef error_;
  std::int32_t redirectCount_ = 0;
  platform::URLRequest originalRequest_;
};
