#pragma once

#include <memory>
#include <optional>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamRecord.h"
#include "Platform/Foundation/KeyedArchive.h"

/// One session, identified by its start time. Valid when that is set.
class SkeldaStreamSessionId final : public SkeldaStreamRecordOf<SkeldaStreamSessionId> {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamSessionId";
  static constexpr bool kIsCopied = true;

  SkeldaStreamSessionId() = default;
  /// `elapsedStartTime` is milliseconds since boot.
  SkeldaStreamSessionId(std::optional<platform::Date> startupTime, std::int64_t elapsedStartTime,
                        std::int32_t sessionState);
  static std::shared_ptr<SkeldaStreamSessionId> sessionIdWithStartupTime(
      std::optional<platform::Date> startupTime, std::int64_t elapsedStartTime,
      std::int32_t sessionState);
  static std::span<const SkeldaRecordField> recordFields() noexcept;

  /// The four fields under their archive keys, and back; null for an archive that holds no session
  /// id. The time of the archive stands in none of them: what comes back is stamped anew.
  platform::KeyedArchive archive() const;
  static std::shared_ptr<SkeldaStreamSessionId> fromArchive(const platform::KeyedArchive& archive);

  const std::optional<platform::Date>& startupTime() const noexcept { return startupTime_; }
  std::int32_t appState() const noexcept { return appState_; }
  std::int64_t elapsedStartTime() const noexcept { return elapsedStartTime_; }
  /// 0 while the session is open.
  std::int64_t elapsedEndTime() const noexcept { return elapsedEndTime_; }
  void setElapsedEndTime(std::int64_t milliseconds) noexcept { elapsedEndTime_ = milliseconds; }

  // -- Fixed by the system, and not called by the agent itself

  void setStartupTime(std::optional<platform::Date> date) { startupTime_ = date; }
  void setAppState(std::int32_t state) noexcept { appState_ = state; }
  void setElapsedStartTime(std::int64_t milliseconds) noexcept { elapsedStartTime_ = milliseconds; }

 protected:
  bool didRead(const platform::Dictionary& dictionary) override;

 private:
  std::optional<platform::Date> startupTime_;
  std::int32_t appState_ = 0;
  std::int64_t elapsedStartTime_ = 0;
  std::int64_t elapsedEndTime_ = 0;
};
