#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamReportedIdentifer.h"

#include <array>
#include <utility>

namespace {

struct TypeName {
  std::uint32_t type;
  std::string_view name;
};

constexpr std::array<TypeName, 3> kTypeNames{{
    {SkeldaStreamReportedIdentifer::kVendorId, "VendorId"},
    {SkeldaStreamReportedIdentifer::kAdvertisingId, "iOSAdvertisingId"},
    {SkeldaStreamReportedIdentifer::kInstallationId, "iOSInstallationId"},
}};

}  // namespace

SkeldaStreamReportedIdentifer::SkeldaStreamReportedIdentifer(std::uint32_t type,
                                                             std::optional<std::string> stringValue)
    : reportedIDType_(type), reportedIDStringValue_(std::move(stringValue)) {}

SkeldaStreamReportedIdentifer SkeldaStreamReportedIdentifer::reportedIdentiferWithType(
    std::uint32_t type, std::optional<std::string> stringValue) {
  return {type, std::move(stringValue)};
}

std::string_view SkeldaStreamReportedIdentifer::nameOfType(std::uint32_t type) noexcept {
  for (const TypeName& row : kTypeNames) {
    if (row.type == type) return row.name;
  }
  return {};
}

std::uint32_t SkeldaStreamReportedIdentifer::typeOfName(std::string_view name) noexcept {
  for (const TypeName& row : kTypeNames) {
    if (row.name == name) return row.type;
  }
  return 0;
}
