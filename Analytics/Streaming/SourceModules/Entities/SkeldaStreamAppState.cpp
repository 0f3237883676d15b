#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppState.h"

#include <array>

#include "Platform/Base/Counted.h"

SkeldaStreamAppState::SkeldaStreamAppState(std::int32_t state, std::int32_t previousState)
    : state_(state), previousState_(previousState) {}

std::shared_ptr<SkeldaStreamAppState> SkeldaStreamAppState::appState(std::int32_t state,
                                                                     std::int32_t previousState) {
  return platform::makeCounted<SkeldaStreamAppState>(state, previousState);
}

std::span<const SkeldaRecordField> SkeldaStreamAppState::recordFields() noexcept {
  using Self = SkeldaStreamAppState;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::state_>("sk.app.current.state").required(),
      SkeldaRecordField::of<&Self::previousState_>("sk.app.previous.state"),
  };
  return kFields;
}
