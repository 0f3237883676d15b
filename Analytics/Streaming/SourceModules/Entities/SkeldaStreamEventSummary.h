#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// How many events a session saw, and whether all of them were let through.
class SkeldaStreamEventSummary final : public SkeldaStreamRecordOf<SkeldaStreamEventSummary> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamEventSummary";
  static constexpr bool kReachesNoLog = true;

  SkeldaStreamEventSummary() = default;
  SkeldaStreamEventSummary(std::uint32_t eventCount, bool setComplete);
  static std::shared_ptr<SkeldaStreamEventSummary> streamWithEventCount(std::uint32_t eventCount,
                                                                        bool setComplete);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  std::uint32_t eventCount() const noexcept { return eventCount_; }
  bool setComplete() const noexcept { return setComplete_; }

 private:
  std::uint32_t eventCount_ = 0;
  bool setComplete_ = false;
};
