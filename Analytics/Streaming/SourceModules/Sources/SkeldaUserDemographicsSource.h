#pragma once

#include "Analytics/Streaming/SourceModules/Sources/ISkeldaUserDemographicsSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaSource.h"

/// Sends what the host says of its user, and keeps it.
class SkeldaUserDemographicsSource
    : public SkeldaSource<SkeldaUserDemographicsSource, ISkeldaUserDemographicsSource> {
 public:
  static constexpr std::string_view kClassName = "SkeldaUserDemographicsSource";

  void setUserId(platform::Value userId, SkeldaIntakeOrigin origin = {}) override;
  std::optional<std::string> getUserId() override;
  void setGenderAsString(std::string gender) override;
  std::int32_t genderAsInt() override;
  void setAgeInYears(std::int32_t age) override;
  std::int32_t age() override;
  void setBirthdate(std::optional<platform::Date> birthdate) override;

 private:
  friend SkeldaSource;
  SkeldaUserDemographicsSource() = default;
  void onqueue_setUserId(platform::Value userId, SkeldaIntakeOrigin origin);
  void onqueue_setGender(const std::string& gender);
  void onqueue_setAgeInYears(std::int32_t age);
  void onqueue_setBirthdate(std::optional<platform::Date> birthdate);

  std::optional<std::string> userId_;
  std::int32_t gender_ = -1;
  std::optional<platform::Date> birthdate_;
};
