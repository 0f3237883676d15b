#pragma once

#include <string_view>

#include "Analytics/Intake/Account/SkeldaIntakeTicket.h"
#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// Reports changes of the user's named properties, in call order. Any thread, returns at once.
/// A name is a text that is not empty, values are an array of texts; what is refused is said in the
/// log and, where the call has an origin, settled.
class ISkeldaUserPropertiesSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaUserPropertiesSource";
  virtual void setUserProperties(platform::Value name, platform::Value values,
                                 SkeldaIntakeOrigin origin = {}) = 0;
  /// `value` is the one value in an array of its own.
  virtual void setUserPropertiesValue(platform::Value name, platform::Value value,
                                      SkeldaIntakeOrigin origin = {}) = 0;
  virtual void addUserProperties(platform::Value name, platform::Value values,
                                 SkeldaIntakeOrigin origin = {}) = 0;
  virtual void removeUserProperties(platform::Value name, platform::Value values,
                                    SkeldaIntakeOrigin origin = {}) = 0;
  virtual void removeUserProperties(platform::Value name, SkeldaIntakeOrigin origin = {}) = 0;
  virtual void flagUserProperties(platform::Value name, SkeldaIntakeOrigin origin = {}) = 0;
};
