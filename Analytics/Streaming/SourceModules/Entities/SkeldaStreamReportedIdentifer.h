#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

/// One identifier and what kind it is. A plain value, ordered so that it can stand in a set.
class SkeldaStreamReportedIdentifer {
 public:
  enum Type : std::uint32_t {
    kVendorId = 6,
    kAdvertisingId = 7,
    kInstallationId = 15,
  };

  SkeldaStreamReportedIdentifer(std::uint32_t type, std::optional<std::string> stringValue);
  static SkeldaStreamReportedIdentifer reportedIdentiferWithType(
      std::uint32_t type, std::optional<std::string> stringValue);

  std::uint32_t reportedIDType() const noexcept { return reportedIDType_; }
  const std::optional<std::string>& reportedIDStringValue() const noexcept {
    return reportedIDStringValue_;
  }

  /// The name of a type in payloads; empty for a type that has none.
  static std::string_view nameOfType(std::uint32_t type) noexcept;
  /// The type of a name; 0 for a name that is none.
  static std::uint32_t typeOfName(std::string_view name) noexcept;

  friend auto operator<=>(const SkeldaStreamReportedIdentifer&,
                          const SkeldaStreamReportedIdentifer&) = default;

 private:
  std::uint32_t reportedIDType_;
  std::optional<std::string> reportedIDStringValue_;
};
