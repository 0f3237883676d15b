#pragma once

#include <memory>
#include <set>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamReportedIdentifer.h"

/// The identifiers under which the watch's data is counted. The name is spelled without the second
/// i wherever it stands: it is part of the format.
class SkeldaStreamReportedIdentifers final
    : public SkeldaStreamRecordOf<SkeldaStreamReportedIdentifers> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamReportedIdentifers";
  using Set = std::set<SkeldaStreamReportedIdentifer>;

  SkeldaStreamReportedIdentifers() = default;
  SkeldaStreamReportedIdentifers(Set reportedIDs, bool adTrackingEnabled);
  static std::shared_ptr<SkeldaStreamReportedIdentifers> reportedIdentifiersWithSet(
      Set reportedIDs, bool adTrackingEnabled);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  const Set& reportedIDs() const noexcept { return reportedIDs_; }
  bool adTrackingEnabled() const noexcept { return adTrackingEnabled_; }

 protected:
  std::string_view inconsistentDictText() const noexcept override {
    return "inconsistent reported ids json object";
  }
  bool didRead(const platform::Dictionary& dictionary) override;

 private:
  platform::Value reportedIDObject() const;

  Set reportedIDs_;
  bool adTrackingEnabled_ = false;
};
