#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// Who the host says its user is. Valid when set.
class SkeldaStreamUserId final : public SkeldaStreamRecordOf<SkeldaStreamUserId> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamUserId";

  SkeldaStreamUserId() = default;
  explicit SkeldaStreamUserId(std::optional<std::string> userId);
  static std::shared_ptr<SkeldaStreamUserId> userIdWithUserId(std::optional<std::string> userId);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  const std::optional<std::string>& userId() const noexcept { return userId_; }

 private:
  std::optional<std::string> userId_;
};
