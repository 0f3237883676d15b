#pragma once

#include "Platform/Foundation/JSONWriter.h"
#include "Platform/WatchConnectivity/Session/WCSession.h"
#include "Tests/Support/Recorded.h"

/// A delegate that writes down what it hears, to be waited for.
class RecordingDelegate : public platform::WCSessionDelegate {
 public:
  explicit RecordingDelegate(unsigned calls = platform::kWCAllDelegateCalls) : calls_(calls) {}
  unsigned answeredCalls() const override { return calls_; }

  void sessionActivationDidComplete(platform::WCSession&, bool activated,
                                    const platform::ErrorRef&) override {
    add(activated ? "activated" : "not activated");
  }
  void sessionReachabilityDidChange(platform::WCSession& session) override {
    add(session.isReachable() ? "peer came" : "peer went");
  }
  void sessionDidReceiveMessage(platform::WCSession&,
                                const platform::Dictionary& message) override {
    add("message " + platform::jsonText(message));
  }
  void sessionDidReceiveUserInfo(platform::WCSession&, const platform::Dictionary& info) override {
    add("info " + platform::jsonText(info));
  }
  void sessionDidFinishUserInfoTransfer(platform::WCSession&,
                                        const platform::WCSessionUserInfoTransfer& transfer,
                                        const platform::ErrorRef& error) override {
    add((error ? "failed " : "finished ") + platform::jsonText(transfer.userInfo));
  }

  /// Waits until so many calls have come; what has come by the deadline is returned.
  std::vector<std::string> wait(std::size_t count) { return heard_.wait(count); }
  std::vector<std::string> heard() { return heard_.all(); }

 private:
  void add(std::string text) { heard_.add(std::move(text)); }
  const unsigned calls_;
  skelda::testing::Recorded<std::string> heard_;
};
