#pragma once

#include <memory>
#include <optional>

#include "Analytics/Streaming/SourceModules/Sources/ISkeldaEventFrameSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

class SkeldaStreamEvent;

/// Makes an event message of each event call. Keeps nothing between calls: the start and the end of
/// a timed event are two messages, paired by whoever reads them.
class SkeldaEventFrameSource
    : public SkeldaSource<SkeldaEventFrameSource, ISkeldaEventFrameSource> {
 public:
  static constexpr std::string_view kClassName = "SkeldaEventFrameSource";
  static constexpr std::string_view kCustomEvent = "CUSTOM_EVENT";
  static constexpr std::string_view kPurchaseEvent = "PURCHASE_EVENT";

  void recordEvent(platform::Value name, platform::Value parameters, bool timed,
                   std::shared_ptr<SkeldaTransaction> transaction, platform::Date timestamp,
                   SkeldaIntakeOrigin origin = {}) override;
  void recordEvent(platform::Value name, platform::Value parameters, bool timed,
                   platform::Date timestamp, SkeldaIntakeOrigin origin = {}) override;
  void endTimedEvent(platform::Value name, platform::Value parameters, platform::Date timestamp,
                     SkeldaIntakeOrigin origin = {}) override;

  /// Whether the name is a text that is not empty, the parameters are a dictionary or null, and all
  /// their text is UTF-8. Says in the log what is wrong.
  static bool isValidInputEvent(const platform::Value& name, const platform::Value& parameters,
                                bool timed, const std::shared_ptr<SkeldaTransaction>& transaction,
                                platform::Date timestamp);

 private:
  friend SkeldaSource;
  SkeldaEventFrameSource() = default;
  void onqueue_recordEvent(platform::Value name, platform::Value parameters, bool timed,
                           std::shared_ptr<SkeldaTransaction> transaction, platform::Date timestamp,
                           SkeldaIntakeOrigin origin);
  void onqueue_endTimedEvent(platform::Value name, platform::Value parameters,
                             platform::Date timestamp, SkeldaIntakeOrigin origin);
  void onqueue_send(std::shared_ptr<SkeldaStreamEvent> event, SkeldaIntakeOrigin origin);
};
