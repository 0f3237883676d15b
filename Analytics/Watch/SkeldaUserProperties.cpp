#include "Skelda_Watch/SkeldaUserProperties.h"

#include <utility>

#include "Analytics/Streaming/SourceModules/Sources/ISkeldaUserPropertiesSource.h"
#include "Analytics/Watch/SkeldaPublicEntry.h"

namespace {

using Source = ISkeldaUserPropertiesSource;

template <class... Parameters, class... Arguments>
void tellSource(void (Source::*operation)(Parameters...), Arguments&&... arguments) noexcept {
  skelda::publicEntry([&] {
    if (const auto source = skelda::publicSource<Source>()) {
      ((*source).*operation)(std::forward<Arguments>(arguments)...);
    }
  });
}

/// Removing takes a name alone or a name and values.
using RemoveValues = void (Source::*)(platform::Value, platform::Value);
using Remove = void (Source::*)(platform::Value);
constexpr RemoveValues kRemoveValues = &Source::removeUserProperties;
constexpr Remove kRemove = &Source::removeUserProperties;

SkeldaValue alone(SkeldaValue value) {
  SkeldaArray array;
  array.push_back(std::move(value));
  return array;
}

}  // namespace

void SkeldaUserProperties::setValues(SkeldaValue name, SkeldaValue values) noexcept {
  tellSource(&Source::setUserProperties, std::move(name), std::move(values));
}

void SkeldaUserProperties::setValue(SkeldaValue name, SkeldaValue value) noexcept {
  tellSource(&Source::setUserPropertiesValue, std::move(name), alone(std::move(value)));
}

void SkeldaUserProperties::addValues(SkeldaValue name, SkeldaValue values) noexcept {
  tellSource(&Source::addUserProperties, std::move(name), std::move(values));
}

void SkeldaUserProperties::addValue(SkeldaValue name, SkeldaValue value) noexcept {
  tellSource(&Source::addUserProperties, std::move(name), alone(std::move(value)));
}

void SkeldaUserProperties::removeValues(SkeldaValue name, SkeldaValue values) noexcept {
  tellSource(kRemoveValues, std::move(name), std::move(values));
}

void SkeldaUserProperties::removeValue(SkeldaValue name, SkeldaValue value) noexcept {
  tellSource(kRemoveValues, std::move(name), alone(std::move(value)));
}

void SkeldaUserProperties::remove(SkeldaValue name) noexcept {
  tellSource(kRemove, std::move(name));
}

void SkeldaUserProperties::flag(SkeldaValue name) noexcept {
  tellSource(&Source::flagUserProperties, std::move(name));
}
