#include "Platform/WatchKit/WKExtension.h"

#include <atomic>

namespace skelda::platform {

namespace {

constinit std::atomic<WKExtension::ApplicationState> currentState{
    WKExtension::ApplicationState::active};

}  // namespace

WKExtension& WKExtension::sharedExtension() {
  static constinit WKExtension shared;
  return shared;
}

WKExtension::ApplicationState WKExtension::applicationState() const noexcept {
  return currentState.load(std::memory_order_relaxed);
}

void WKExtension::setApplicationState(ApplicationState state) noexcept {
  currentState.store(state, std::memory_order_relaxed);
}

}  // namespace skelda::platform
