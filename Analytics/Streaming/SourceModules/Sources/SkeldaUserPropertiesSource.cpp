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

void SkeldaUserPropertiesSource::setUserProperties(platform::Value name, platform::Value values) {
  if (!isValidInputUserProperties(name, values)) return;
  post(&SkeldaUserPropertiesSource::onqueue_setUserProperties, std::move(name), std::move(values));
}

void SkeldaUserPropertiesSource::setUserPropertiesValue(platform::Value name,
                                                        platform::Value value) {
  setUserProperties(std::move(name), std::move(value));
}

void SkeldaUserPropertiesSource::addUserProperties(platform::Value name, platform::Value values) {
  post(&SkeldaUserPropertiesSource::onqueue_addUserProperties, std::move(name), std::move(values));
}

void SkeldaUserPropertiesSource::removeUserProperties(platform::Value name,
                                                      platform::Value values) {
  if (!isValidInputUserProperties(name, values)) return;
  post(&SkeldaUserPropertiesSource::onqueue_removeUserProperties, std::move(name),
       std::move(values));
}

void SkeldaUserPropertiesSource::removeUserProperties(platform::Value name) {
  post(&SkeldaUserPropertiesSource::onqueue_clearUserProperties, std::move(name),
       platform::Array());
}

void SkeldaUserPropertiesSource::flagUserProperties(platform::Value name) {
  platform::Value values = platform::Array{"true"};
  if (!isValidInputUserProperties(name, values)) return;
  post(&SkeldaUserPropertiesSource::onqueue_flagUserProperties, std::move(name), std::move(values));
}

void SkeldaUserPropertiesSource::post(Operation operation, platform::Value name,
                                      platform::Value values) {
  asyncBlock([self = selfOf(this), operation, name = std::move(name),
              values = std::move(values)]() mutable {
    ((*self).*operation)(std::move(name), std::move(values));
  });
}

bool SkeldaUserPropertiesSource::isValidInputUserProperties(const platform::Value& name,
                                                            const platform::Value& values) {
  if (name.text() == nullptr || name.text()->empty()) {
    SKELDA_LOG(2, "{}: Not logging user property name[{}] due to invalid user property name",
               kValidateMethod, name.description());
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
               kValidateMethod, *name.text());
    return false;
  }
  const auto notText = std::find_if(array->begin(), array->end(),
                                    [](const auto& value) { return value.text() == nullptr; });
  if (notText != array->end()) {
    SKELDA_LOG(2, "{}: invalid user property value = {}", kValidateMethod, notText->description());
    return false;
  }
  if (!skelda::isWellFormedText(values)) {
    SKELDA_LOG(2, "{}: Not logging user property name[{}] because a value is not UTF-8 text",
               kValidateMethod, *name.text());
    return false;
  }
  return true;
}

void SkeldaUserPropertiesSource::onqueue_send(platform::Value name, platform::Value values,
                                              CallType callType) {
  onqueue_streamMessage(SkeldaStreamUserProperties::updateUserPropertiesName(
      std::move(*name.text()), std::move(*values.array()), callType));
}
