#pragma once

#include <cstdint>
#include <memory>

/// The state of the watch extension now and before, in the platform's numbers.
class SkeldaAppStateData {
 public:
  /// Stands for "no earlier state".
  static constexpr std::int32_t kNoState = -1;

  static std::shared_ptr<const SkeldaAppStateData> dataWithPreviousState(std::int32_t previousState,
                                                                         std::int32_t currentState);
  std::int32_t previousState() const noexcept { return previousState_; }
  std::int32_t currentState() const noexcept { return currentState_; }

 private:
  std::int32_t previousState_ = kNoState;
  std::int32_t currentState_ = kNoState;
};
