#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Analytics/Intake/Account/SkeldaIntakeTicket.h"
#include "Analytics/Streaming/Core/StreamComponent/ISkeldaFrameSource.h"
#include "Platform/Foundation/Date.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// Reports who the user is. Setters return at once, getters wait for the source's queue; any
/// thread. Only the user id reaches a log: gender and birth date have no frame type.
class ISkeldaUserDemographicsSource : public ISkeldaFrameSource {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaUserDemographicsSource";
  /// A text, or null for none.
  virtual void setUserId(platform::Value userId, SkeldaIntakeOrigin origin = {}) = 0;
  virtual std::optional<std::string> getUserId() = 0;
  /// "m" or "f"; anything else is unknown.
  virtual void setGenderAsString(std::string gender) = 0;
  /// 1 male, 0 female, -1 unknown.
  virtual std::int32_t genderAsInt() = 0;
  /// 1 to 150; anything else is ignored.
  virtual void setAgeInYears(std::int32_t age) = 0;
  /// Whole years since the birth date; 0 without one.
  virtual std::int32_t age() = 0;
  virtual void setBirthdate(std::optional<platform::Date> birthdate) = 0;
};
