#include "Analytics/Streaming/Data Providers/SkeldaAppStateData.h"

#include "Platform/Base/Counted.h"
#include "Platform/Platform.h"

std::shared_ptr<const SkeldaAppStateData> SkeldaAppStateData::dataWithPreviousState(
    std::int32_t previousState, std::int32_t currentState) {
  auto data = platform::makeCounted<SkeldaAppStateData>();
  data->previousState_ = previousState;
  data->currentState_ = currentState;
  return data;
}
