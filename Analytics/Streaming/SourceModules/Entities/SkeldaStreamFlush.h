#pragma once

#include <memory>
#include <optional>
#include <string_view>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"

/// The frame that closes a log, and why.
class SkeldaStreamFlush final : public SkeldaStreamRecordOf<SkeldaStreamFlush> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamFlush";

  /// There is no 2: the far end knows the codes by these numbers.
  enum Status : std::int32_t {
    kDoNotFlush = 0,
    kStickySetComplete = 1,
    kSessionFinalized = 3,
    kAppCrashed = 4,
    kForced = 5,
    kCCPADelete = 6,
  };

  SkeldaStreamFlush() = default;
  explicit SkeldaStreamFlush(std::int32_t status);
  static std::shared_ptr<SkeldaStreamFlush> streamFlushWithStatus(std::int32_t status);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  /// Whether the status is one of the above.
  bool isValidModel() const override;
  std::int32_t status() const noexcept { return status_; }
  /// The reason in words; nothing for a status that is none of the above.
  std::optional<std::string_view> statusString() const noexcept;

 private:
  platform::Value reason() const;

  std::int32_t status_ = kDoNotFlush;
};
