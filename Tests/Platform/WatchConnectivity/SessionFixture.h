#pragma once

#include "Platform/Foundation/JSONWriter.h"
#include "Platform/WatchConnectivity/Session/WCSession.h"
#include "Tests/Support/Testing.h"

class RecordingDelegate : public WCSessionDelegate, public Recorded<std::string> {
 public:
  explicit RecordingDelegate(unsigned calls = kWCAllDelegateCalls) : calls_(calls) {}
  unsigned answeredCalls() const override { return calls_; }

  void sessionActivationDidComplete(WCSession&, bool activated, const ErrorRef&) override {
    add(activated ? "activated" : "not activated");
  }
  void sessionReachabilityDidChange(WCSession& session) override {
    add(session.isReachable() ? "peer came" : "peer went");
  }
  void sessionDidReceiveMessage(WCSession&, const Dictionary& message) override {
    add("message " + jsonText(message));
  }
  void sessionDidReceiveUserInfo(WCSession&, const Dictionary& info) override {
    add("info " + jsonText(info));
  }
  void sessionDidFinishUserInfoTransfer(WCSession&, const WCSessionUserInfoTransfer& transfer,
                                        const ErrorRef& error) override {
    add((error ? "failed " : "finished ") + jsonText(transfer.userInfo));
  }

 private:
  const unsigned calls_;
};
