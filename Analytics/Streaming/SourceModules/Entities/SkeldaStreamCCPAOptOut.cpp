#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPAOptOut.h"

#include <array>

#include "Platform/Base/Counted.h"

SkeldaStreamCCPAOptOut::SkeldaStreamCCPAOptOut(bool optOut) : CCPAOptOut_(optOut) {}

std::shared_ptr<SkeldaStreamCCPAOptOut> SkeldaStreamCCPAOptOut::updateCCPAOptOut(bool optOut) {
  return platform::makeCounted<SkeldaStreamCCPAOptOut>(optOut);
}

std::span<const SkeldaRecordField> SkeldaStreamCCPAOptOut::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamCCPAOptOut::CCPAOptOut_>("sk.ccpa.optout").required(),
  };
  return kFields;
}
