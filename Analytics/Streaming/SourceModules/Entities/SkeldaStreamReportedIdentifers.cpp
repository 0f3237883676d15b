#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamReportedIdentifers.h"

#include <array>
#include <utility>

#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Base/Counted.h"

namespace {

constexpr std::string_view kObjectKey = "sk.reported.id";

}  // namespace

SkeldaStreamReportedIdentifers::SkeldaStreamReportedIdentifers(Set reportedIDs,
                                                               bool adTrackingEnabled)
    : reportedIDs_(std::move(reportedIDs)), adTrackingEnabled_(adTrackingEnabled) {}

std::shared_ptr<SkeldaStreamReportedIdentifers>
SkeldaStreamReportedIdentifers::reportedIdentifiersWithSet(Set reportedIDs,
                                                           bool adTrackingEnabled) {
  return platform::makeCounted<SkeldaStreamReportedIdentifers>(std::move(reportedIDs),
                                                               adTrackingEnabled);
}

std::span<const SkeldaRecordField> SkeldaStreamReportedIdentifers::recordFields() noexcept {
  using Self = SkeldaStreamReportedIdentifers;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::reportedIDObject>(kObjectKey).required(),
      SkeldaRecordField::of<&Self::adTrackingEnabled_>("sk.ad.tracking"),
  };
  return kFields;
}

platform::Value SkeldaStreamReportedIdentifers::reportedIDObject() const {
  platform::Dictionary object;
  for (const SkeldaStreamReportedIdentifer& identifier : reportedIDs_) {
    const std::string_view name =
        SkeldaStreamReportedIdentifer::nameOfType(identifier.reportedIDType());
    if (name.empty()) {
      SKELDA_LOG(2, "{}: invalid reported ID type: {}",
                 "-[SkeldaStreamReportedIdentifers dictionaryRepresentation]",
                 identifier.reportedIDType());
    } else if (identifier.reportedIDStringValue()) {
      object.set(std::string(name), *identifier.reportedIDStringValue());
    }
  }
  return object;
}

bool SkeldaStreamReportedIdentifers::didRead(const platform::Dictionary& dictionary) {
  const platform::Dictionary* object = dictionary.find(kObjectKey)->dictionary();
  if (object == nullptr) return false;
  for (const auto& [name, value] : *object) {
    const std::uint32_t type = SkeldaStreamReportedIdentifer::typeOfName(name);
    if (type != 0 && value.text() != nullptr) reportedIDs_.emplace(type, *value.text());
  }
  return true;
}
