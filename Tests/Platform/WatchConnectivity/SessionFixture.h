#pragma once

#include "Platform/Foundation/JSONWriter.h"
#include "Platform/WatchConnectivity/WCDefaultSession.h"
#include "Platform/WatchConnectivity/WCPairTransport.h"
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

/// A link of which the watch's end is still to be taken, and the phone at its other end.
struct PhoneOfAPair {
  PhoneOfAPair() {
    std::tie(watchEnd_, phoneEnd_) = WCPairTransport::make();
    phone_ = WCDefaultSession::make(phoneEnd_);
    phone_->setDelegate(atPhone_);
  }

  WCPairTransport::Ref watchEnd_, phoneEnd_;
  std::shared_ptr<WCDefaultSession> phone_;
  std::shared_ptr<RecordingDelegate> atPhone_ = std::make_shared<RecordingDelegate>();
};
