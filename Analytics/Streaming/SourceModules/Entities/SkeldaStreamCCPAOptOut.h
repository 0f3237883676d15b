#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// Whether the user opted out of the sale of data.
class SkeldaStreamCCPAOptOut final : public SkeldaStreamRecordOf<SkeldaStreamCCPAOptOut> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamCCPAOptOut";

  SkeldaStreamCCPAOptOut() = default;
  explicit SkeldaStreamCCPAOptOut(bool optOut);
  static std::shared_ptr<SkeldaStreamCCPAOptOut> updateCCPAOptOut(bool optOut);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  bool optOut() const noexcept { return CCPAOptOut_; }
  bool CCPAOptOut() const noexcept { return CCPAOptOut_; }

 private:
  bool CCPAOptOut_ = false;
};
