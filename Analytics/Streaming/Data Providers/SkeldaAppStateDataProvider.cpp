#include "Analytics/Streaming/Data Providers/SkeldaAppStateDataProvider.h"

#include "Platform/Dispatch/Queue.h"
#include "Platform/WatchKit/WKExtension.h"

SkeldaAppStateDataProvider::SkeldaAppStateDataProvider()
    : SkeldaDataProvider(std::string(kClassName)) {}

std::shared_ptr<SkeldaAppStateDataProvider> SkeldaAppStateDataProvider::getInstance() {
  return made(new SkeldaAppStateDataProvider());
}

void SkeldaAppStateDataProvider::startup() {
  post<&SkeldaAppStateDataProvider::onqueue_start>();
}

void SkeldaAppStateDataProvider::sendWatchState(std::int32_t state) {
  post<&SkeldaAppStateDataProvider::onqueue_sendWatchState>(state);
}

SkeldaAppStateDataProvider::DataRef SkeldaAppStateDataProvider::appStateData() {
  DataRef data;
  syncBlock([&] { data = appStateData_; });
  return data;
}

void SkeldaAppStateDataProvider::onqueue_start() {
  SKELDA_ON_QUEUE();
  platform::Queue::main()->async([self = selfOf(this)] {
    self->mainQueue_subscribeNotifications();
    const auto state = platform::WKExtension::sharedExtension().applicationState();
    self->sendWatchState(static_cast<std::int32_t>(state));
  });
}

void SkeldaAppStateDataProvider::onqueue_sendWatchState(std::int32_t state) {
  SKELDA_ON_QUEUE();
  const std::int32_t previous =
      appStateData_ ? appStateData_->currentState() : SkeldaAppStateData::kNoState;
  if (appStateData_ && state == previous) return;
  appStateData_ = SkeldaAppStateData::dataWithPreviousState(previous, state);
  notifyObservers();
}
