#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// One operation on a user property: which (1 to 6), on which property, with which values.
class SkeldaStreamUserProperties final : public SkeldaStreamRecordOf<SkeldaStreamUserProperties> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamUserProperties";

  /// An empty record; takes no number of the sequence.
  SkeldaStreamUserProperties() = default;
  /// The values are texts.
  SkeldaStreamUserProperties(std::optional<std::string> name, std::optional<platform::Array> values,
                             std::uint32_t callType);
  static std::shared_ptr<SkeldaStreamUserProperties> updateUserPropertiesName(
      std::optional<std::string> name, std::optional<platform::Array> values,
      std::uint32_t callType);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  bool isValidModel() const override;
  void takeOrigin(const SkeldaIntakeOrigin& origin) noexcept override;

  /// Number of the record in this process, from 1.
  std::uint32_t userPropertyId() const noexcept { return userPropertyId_; }
  const std::optional<std::string>& propertyName() const noexcept { return propertyName_; }
  const std::optional<platform::Array>& propertyValues() const noexcept { return propertyValues_; }
  std::uint32_t callType() const noexcept { return callType_; }
  /// Milliseconds since boot at which the record was made.
  std::int64_t uptime() const noexcept { return uptime_; }

 private:
  std::uint32_t userPropertyId_ = 0;
  std::optional<std::string> propertyName_;
  std::optional<platform::Array> propertyValues_;
  std::uint32_t callType_ = 0;
  std::int64_t uptime_ = 0;
};
