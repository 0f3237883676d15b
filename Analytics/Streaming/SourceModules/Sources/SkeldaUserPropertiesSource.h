#pragma once

#include <cstdint>
#include <utility>

#include "Analytics/Streaming/SourceModules/Sources/ISkeldaUserPropertiesSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaHostText.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

/// Makes a user properties message of each call.
class SkeldaUserPropertiesSource
    : public SkeldaSource<SkeldaUserPropertiesSource, ISkeldaUserPropertiesSource> {
 public:
  static constexpr std::string_view kClassName = "SkeldaUserPropertiesSource";

  void setUserProperties(platform::Value name, platform::Value values,
                         SkeldaIntakeOrigin origin = {}) override;
  void setUserPropertiesValue(platform::Value name, platform::Value value,
                              SkeldaIntakeOrigin origin = {}) override;
  void addUserProperties(platform::Value name, platform::Value values,
                         SkeldaIntakeOrigin origin = {}) override;
  void removeUserProperties(platform::Value name, platform::Value values,
                            SkeldaIntakeOrigin origin = {}) override;
  void removeUserProperties(platform::Value name, SkeldaIntakeOrigin origin = {}) override;
  void flagUserProperties(platform::Value name, SkeldaIntakeOrigin origin = {}) override;

  /// Whether the name is a text that is not empty, the values are an array of texts, and all of it
  /// is UTF-8. Says in the log what is wrong.
  static bool isValidInputUserProperties(const platform::Value& name,
                                         const platform::Value& values);

 private:
  friend SkeldaSource;
  /// What the message asks of the far end.
  enum CallType : std::uint32_t { kSet = 1, kAdd, kRemove, kClear, kAssign, kFlag };

  using Self = SkeldaUserPropertiesSource;
  using Operation = void (SkeldaUserPropertiesSource::*)(platform::Value, platform::Value,
                                                         SkeldaIntakeOrigin);

  SkeldaUserPropertiesSource() = default;
  /// Refuses at once what is not valid.
  template <Operation operation>
  void checkAndPost(platform::Value name, platform::Value values, SkeldaIntakeOrigin origin);

  void onqueue_setUserProperties(platform::Value name, platform::Value values,
                                 SkeldaIntakeOrigin origin) {
    onqueue_send(std::move(name), std::move(values), kSet, origin);
  }
  void onqueue_addUserProperties(platform::Value name, platform::Value values,
                                 SkeldaIntakeOrigin origin) {
    onqueue_sendValid(std::move(name), std::move(values), kAdd, origin);
  }
  void onqueue_removeUserProperties(platform::Value name, platform::Value values,
                                    SkeldaIntakeOrigin origin) {
    onqueue_send(std::move(name), std::move(values), kRemove, origin);
  }
  void onqueue_clearUserProperties(platform::Value name, platform::Value values,
                                   SkeldaIntakeOrigin origin) {
    onqueue_sendValid(std::move(name), std::move(values), kClear, origin);
  }
  /// Nothing public leads here.
  [[maybe_unused]] void onqueue_assignUserProperties(platform::Value name, platform::Value values,
                                                     SkeldaIntakeOrigin origin) {
    onqueue_send(std::move(name), std::move(values), kAssign, origin);
  }
  void onqueue_flagUserProperties(platform::Value name, platform::Value values,
                                  SkeldaIntakeOrigin origin) {
    onqueue_send(std::move(name), std::move(values), kFlag, origin);
  }
  void onqueue_sendValid(platform::Value name, platform::Value values, CallType callType,
                         SkeldaIntakeOrigin origin);
  void onqueue_send(platform::Value name, platform::Value values, CallType callType,
                    SkeldaIntakeOrigin origin);
};
