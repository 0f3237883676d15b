#pragma once

#include <cstdint>

namespace skelda::platform {

/// The running watch extension and its state. The state is read on the main queue.
class WKExtension {
 public:
  /// The platform's numbers.
  enum class ApplicationState : std::int32_t { active = 0, inactive = 1, background = 2 };
  static WKExtension& sharedExtension();
  ApplicationState applicationState() const noexcept;
  /// The host says what state it is in; active at first. Any thread.
  void setApplicationState(ApplicationState state) noexcept;
};

}  // namespace skelda::platform
