#include "Analytics/Streaming/Data Providers/SkeldaAppStateData.h"

std::shared_ptr<const SkeldaAppStateData> SkeldaAppStateData::dataWithPreviousState(
    std::int32_t previousState, std::int32_t currentState) {
  auto data = std::make_shared<SkeldaAppStateData>();
  data->previousState_ = previousState;
  data->currentState_ = currentState;
  return data;
}
