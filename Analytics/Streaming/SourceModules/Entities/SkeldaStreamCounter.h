#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The first frame of every log: the log's number in the life of the installation.
class SkeldaStreamCounter final : public SkeldaStreamRecordOf<SkeldaStreamCounter> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamCounter";

  SkeldaStreamCounter() = default;
  explicit SkeldaStreamCounter(std::int32_t counter);
  static std::shared_ptr<SkeldaStreamCounter> counterFrameWithCounter(std::int32_t counter);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  std::int32_t frameCounter() const noexcept { return frameCounter_; }

 private:
  std::int32_t frameCounter_ = 0;
};
