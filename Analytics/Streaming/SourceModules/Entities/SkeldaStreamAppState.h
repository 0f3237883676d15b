#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The application's state, and the one before it.
class SkeldaStreamAppState final : public SkeldaStreamRecordOf<SkeldaStreamAppState> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamAppState";

  SkeldaStreamAppState() = default;
  SkeldaStreamAppState(std::int32_t state, std::int32_t previousState);
  static std::shared_ptr<SkeldaStreamAppState> appState(std::int32_t state,
                                                        std::int32_t previousState);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  std::int32_t state() const noexcept { return state_; }
  std::int32_t previousState() const noexcept { return previousState_; }

 protected:
  std::string invalidModelText() const override { return "invalid model object"; }

 private:
  std::int32_t state_ = 0;
  std::int32_t previousState_ = 0;
};
