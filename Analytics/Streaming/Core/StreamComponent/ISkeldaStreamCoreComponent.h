#pragma once

#include <cstdint>
#include <string_view>

/// What a core stage can be told about readiness. Both calls are optional: the defaults ignore
/// them. Any thread.
class ISkeldaStreamCoreComponent {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamCoreComponent";

  // The states of a core stage.
  static constexpr std::int32_t kStateConstructed = 1;
  static constexpr std::int32_t kStateStarted = 2;
  static constexpr std::int32_t kStateReady = 3;

  virtual void updateState(std::int32_t /*state*/) {}
  virtual void nextStageDidChangeState(std::int32_t /*state*/) {}

 protected:
  ~ISkeldaStreamCoreComponent() = default;
};
