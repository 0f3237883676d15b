#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserDemographicsSource.h"

#include <ctime>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserBirthdate.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserGender.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserId.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaHostText.h"
#include "Analytics/Utils/SkeldaLog.h"

namespace {

std::tm localCalendar(platform::Date date) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(date.microsecondsSince1970());
  const auto time = static_cast<std::time_t>(seconds.count());
  std::tm calendar{};
  ::localtime_r(&time, &calendar);
  return calendar;
}

/// The first instant of the year in local time; `year` counts from 1900, as the C library does.
platform::Date startOfYear(int year) {
  std::tm calendar{};
  calendar.tm_year = year;
  calendar.tm_mday = 1;
  calendar.tm_isdst = -1;
  return platform::Date(std::chrono::seconds(std::mktime(&calendar)));
}

std::int32_t wholeYearsBetween(platform::Date earlier, platform::Date later) {
  const auto from = localCalendar(earlier);
  const auto to = localCalendar(later);
  const bool dayReached = std::pair(to.tm_mon, to.tm_mday) >= std::pair(from.tm_mon, from.tm_mday);
  return to.tm_year - from.tm_year - (dayReached ? 0 : 1);
}

}  // namespace

void SkeldaUserDemographicsSource::setUserId(platform::Value userId, SkeldaIntakeOrigin origin) {
  post<&SkeldaUserDemographicsSource::onqueue_setUserId>(std::move(userId), origin);
}

std::optional<std::string> SkeldaUserDemographicsSource::getUserId() {
  std::optional<std::string> userId;
  syncBlock([&] { userId = userId_; });
  return userId;
}

void SkeldaUserDemographicsSource::setGenderAsString(std::string gender) {
  post<&SkeldaUserDemographicsSource::onqueue_setGender>(std::move(gender));
}

std::int32_t SkeldaUserDemographicsSource::genderAsInt() {
  std::int32_t gender = -1;
  syncBlock([&] { gender = gender_; });
  return gender;
}

void SkeldaUserDemographicsSource::setAgeInYears(std::int32_t age) {
  post<&SkeldaUserDemographicsSource::onqueue_setAgeInYears>(age);
}

std::int32_t SkeldaUserDemographicsSource::age() {
  std::int32_t years = 0;
  syncBlock([&] {
    if (birthdate_) years = wholeYearsBetween(*birthdate_, platform::Date::now());
  });
  return years;
}

void SkeldaUserDemographicsSource::setBirthdate(std::optional<platform::Date> birthdate) {
  post<&SkeldaUserDemographicsSource::onqueue_setBirthdate>(birthdate);
}

void SkeldaUserDemographicsSource::onqueue_setUserId(platform::Value userId,
                                                     SkeldaIntakeOrigin origin) {
  SKELDA_ON_QUEUE();
  if (!skelda::isWellFormedText(userId)) {
    SKELDA_LOG(1, "{}: user id is not UTF-8 text",
               "-[SkeldaUserDemographicsSource onqueue_setUserId:]");
    return skelda::settleRefused(origin.ticket, userId, {});
  }
  auto text = skelda::textOf(std::move(userId));
  // No id after no id is no news. No id after one is: the message that cannot be written takes the
  // place of the old id in what later logs begin with.
  if (!text && !userId_) {
    return SkeldaAccounting::settle(origin.ticket, SkeldaIntakeOutcome::stored);
  }
  userId_ = std::move(text);
  auto message = SkeldaStreamUserId::userIdWithUserId(userId_);
  message->takeOrigin(origin);
  onqueue_streamMessage(std::move(message));
}

void SkeldaUserDemographicsSource::onqueue_setGender(const std::string& gender) {
  SKELDA_ON_QUEUE();
  gender_ = gender == "m" ? 1 : gender == "f" ? 0 : -1;
  onqueue_streamMessage(SkeldaStreamUserGender::userGenderWithGender(gender_));
}

void SkeldaUserDemographicsSource::onqueue_setAgeInYears(std::int32_t age) {
  SKELDA_ON_QUEUE();
  if (age <= 0 || age >= 151) return;
  birthdate_ = startOfYear(localCalendar(platform::Date::now()).tm_year - age);
  onqueue_streamMessage(SkeldaStreamUserBirthdate::userBirthdateWithDate(birthdate_));
}

void SkeldaUserDemographicsSource::onqueue_setBirthdate(std::optional<platform::Date> birthdate) {
  SKELDA_ON_QUEUE();
  birthdate_ = birthdate;
  onqueue_streamMessage(SkeldaStreamUserBirthdate::userBirthdateWithDate(birthdate_));
}
