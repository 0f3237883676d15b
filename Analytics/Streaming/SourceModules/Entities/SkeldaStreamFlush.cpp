#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"

#include <array>

#include "Platform/Base/Counted.h"

SkeldaStreamFlush::SkeldaStreamFlush(std::int32_t status) : status_(status) {}

std::shared_ptr<SkeldaStreamFlush> SkeldaStreamFlush::streamFlushWithStatus(std::int32_t status) {
  return platform::makeCounted<SkeldaStreamFlush>(status);
}

std::span<const SkeldaRecordField> SkeldaStreamFlush::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamFlush::status_>("sk.flush.frame.code").required(),
      SkeldaRecordField::of<&SkeldaStreamFlush::reason>("sk.flush.frame.reason"),
  };
  return kFields;
}

bool SkeldaStreamFlush::isValidModel() const {
  return statusString().has_value();
}

std::optional<std::string_view> SkeldaStreamFlush::statusString() const noexcept {
  switch (status_) {
    case kDoNotFlush:
      return "DO_NOT_FLUSH";
    case kStickySetComplete:
      return "Sticky set is complete";
    case kSessionFinalized:
      return "Session is finalized";
    case kAppCrashed:
      return "App has crashed";
    case kForced:
      return "Force to flush";
    case kCCPADelete:
      return "App user has CCPA delete frame";
    default:
      return std::nullopt;
  }
}

platform::Value SkeldaStreamFlush::reason() const {
  const std::optional<std::string_view> text = statusString();
  return text ? platform::Value(*text) : platform::Value();
}
