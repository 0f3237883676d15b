#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The request to delete the user's data. Says it by its type alone: the payload is "{}".
class SkeldaStreamCCPADelete final : public SkeldaStreamRecordOf<SkeldaStreamCCPADelete> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamCCPADelete";

  SkeldaStreamCCPADelete() = default;
  static std::shared_ptr<SkeldaStreamCCPADelete> updateCCPADelete();
  static std::span<const SkeldaRecordField> recordFields() noexcept { return {}; }
};
