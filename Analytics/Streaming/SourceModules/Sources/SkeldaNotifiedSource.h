#pragma once

#include <memory>
#include <string_view>

#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"
#include "Platform/Foundation/EnvironmentMonitor.h"
#include "Platform/Foundation/NotificationCenter.h"

/// A source that reports something of the environment at start-up and again each time the platform
/// says that it has changed.
template <class Self, class Protocol>
class SkeldaNotifiedSource : public SkeldaSource<Self, Protocol> {
 public:
  ~SkeldaNotifiedSource() override {
    platform::NotificationCenter::defaultCenter().removeObserver(observation_);
  }

 protected:
  /// HANDLER is called on whichever thread the notification comes, and posts.
  SkeldaNotifiedSource(std::string_view notification, void (Self::*handler)())
      : notification_(notification), handler_(handler) {}
  virtual void onqueue_fetchAndSend() = 0;

  void onqueue_startup() override {
    SKELDA_ON_QUEUE();
    onqueue_observe();
    onqueue_fetchAndSend();
  }

 private:
  // Before the first message, so that no change is missed in between.
  void onqueue_observe() {
    SKELDA_ON_QUEUE();
    if (observation_ != 0) return;
    std::weak_ptr<SkeldaNotifiedSource> weakSelf = SkeldaActor::selfOf(this);
    observation_ = platform::NotificationCenter::defaultCenter().addObserver(
        notification_, [weakSelf](const platform::Notification&) {
          if (const auto self = weakSelf.lock()) (static_cast<Self&>(*self).*self->handler_)();
        });
    platform::EnvironmentMonitor::startShared();
  }

  const std::string_view notification_;
  void (Self::*const handler_)();
  platform::NotificationCenter::Token observation_ = 0;
};
