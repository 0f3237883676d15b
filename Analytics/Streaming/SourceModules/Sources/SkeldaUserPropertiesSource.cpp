#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserPropertiesSource.h"

#include <algorithm>
#include <utility>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserProperties.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaHostText.h"
#include "Analytics/Utils/SkeldaLog.h"

namespace {

constexpr std::string_view kValidateMethod =
    "+[SkeldaUserPropertiesSource isValidInputUserProperties:withValues:]";

}  // namespace

// Setting, removing values and flagging are checked on the caller's thread, adding and clearing on
// the queue.

template <SkeldaUserPropertiesSource::Operation operation>
void SkeldaUserPropertiesSource::checkAndPost(platform::Value name, platform::Value values,
                                              SkeldaIntakeOrigin origin) {
  if (!isValidInputUserProperties(name, values)) {
    return skelda::settleRefused(origin.ticket, name, values);
  }
  post<operation>(std::move(name), std::move(values), origin);
}

void SkeldaUserPropertiesSource::setUserProperties(platform::Value name, platform::Value values,
                                                   SkeldaIntakeOrigin origin) {
  checkAndPost<&Self::onqueue_setUserProperties>(std::move(name), std::move(values), origin);
}

void SkeldaUserPropertiesSource::setUserPropertiesValue(platform::Value name, platform::Value value,
                                                        SkeldaIntakeOrigin origin) {
  setUserProperties(std::move(name), std::move(value), origin);
}

void SkeldaUserPropertiesSource::addUserProperties(platform::Value name, platform::Value values,
                                                   SkeldaIntakeOrigin origin) {
  post<&Self::onqueue_addUserProperties>(std::move(name), std::move(values), origin);
}

void SkeldaUserPropertiesSource::removeUserProperties(platform::Value name, platform::Value values,
                                                      SkeldaIntakeOrigin origin) {
  checkAndPost<&Self::onqueue_removeUserProperties>(std::move(name), std::move(values), origin);
}

void SkeldaUserPropertiesSource::removeUserProperties(platform::Value name,
                                                      SkeldaIntakeOrigin origin) {
  post<&Self::onqueue_clearUserProperties>(std::move(name), platform::Array(), origin);
}

void SkeldaUserPropertiesSource::flagUserProperties(platform::Value name,
                                                    SkeldaIntakeOrigin origin) {
  checkAndPost<&Self::onqueue_flagUserProperties>(std::move(name), platform::Array{"true"}, origin);
}

bool SkeldaUserPropertiesSource::isValidInputUserProperties(const platform::Value& name,
                                                            const platform::Value& values) {
  if (name.text() == nullptr || name.text()->empty()) {
    SKELDA_LOG(2, "{}: Not logging user property name[{}] due to invalid user property name",
               kValidateMethod, skelda::shownDescription(name));
    return false;
  }
  if (!skelda::isWellFormedText(name)) {
    SKELDA_LOG(2, "{}: Not logging user property because its name is not UTF-8 text",
               kValidateMethod);
    return false;
  }
  const auto* array = values.array();
  if (array == nullptr) {
    SKELDA_LOG(2, "{}: Not logging user property name[{}] due to invalid values array",
               kValidateMethod, skelda::shownValue(*name.text()));
    return false;
  }
  const auto notText = std::find_if(array->begin(), array->end(),
                                    [](const auto& value) { return value.text() == nullptr; });
  if (notText != array->end()) {
    SKELDA_LOG(2, "{}: invalid user property value = {}", kValidateMethod,
               skelda::shownDescription(*notText));
    return false;
  }
  if (!skelda::isWellFormedText(values)) {
    SKELDA_LOG(2, "{}: Not logging user property name[{}] because a value is not UTF-8 text",
               kValidateMethod, skelda::shownValue(*name.text()));
    return false;
  }
  return true;
}

void SkeldaUserPropertiesSource::onqueue_sendValid(platform::Value name, platform::Value values,
                                                   CallType callType, SkeldaIntakeOrigin origin) {
  SKELDA_ON_QUEUE();
  if (!isValidInputUserProperties(name, values)) {
    return skelda::settleRefused(origin.ticket, name, values);
  }
  onqueue_send(std::move(name), std::move(values), callType, origin);
}

void SkeldaUserPropertiesSource::onqueue_send(platform::Value name, platform::Value values,
                                              CallType callType, SkeldaIntakeOrigin origin) {
  SKELDA_ON_QUEUE();
  auto message = SkeldaStreamUserProperties::updateUserPropertiesName(
      std::move(*name.text()), std::move(*values.array()), callType);
  message->takeOrigin(origin);
  onqueue_streamMessage(std::move(message));
}
