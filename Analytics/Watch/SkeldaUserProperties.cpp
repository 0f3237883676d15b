#include "Skelda_Watch/SkeldaUserProperties.h"

#include <utility>

#include "Analytics/Watch/SkeldaPublicEntry.h"

namespace {

using Kind = SkeldaIntakeCall::Kind;

/// A value in an array of its own; null where there is no memory for it, which the source refuses.
SkeldaValue alone(SkeldaValue value) noexcept {
  return skelda::guardedResult(SkeldaValue(), [&] {
    SkeldaArray array;
    array.push_back(std::move(value));
    return SkeldaValue(std::move(array));
  });
}

}  // namespace

void SkeldaUserProperties::setValues(SkeldaValue name, SkeldaValue values) noexcept {
  skelda::choice(Kind::setProperties, std::move(name), std::move(values));
}

void SkeldaUserProperties::setValue(SkeldaValue name, SkeldaValue value) noexcept {
  skelda::choice(Kind::setPropertyValue, std::move(name), alone(std::move(value)));
}

void SkeldaUserProperties::addValues(SkeldaValue name, SkeldaValue values) noexcept {
  skelda::choice(Kind::addProperties, std::move(name), std::move(values));
}

void SkeldaUserProperties::addValue(SkeldaValue name, SkeldaValue value) noexcept {
  skelda::choice(Kind::addProperties, std::move(name), alone(std::move(value)));
}

void SkeldaUserProperties::removeValues(SkeldaValue name, SkeldaValue values) noexcept {
  skelda::choice(Kind::removeProperties, std::move(name), std::move(values));
}

void SkeldaUserProperties::removeValue(SkeldaValue name, SkeldaValue value) noexcept {
  skelda::choice(Kind::removeProperties, std::move(name), alone(std::move(value)));
}

void SkeldaUserProperties::remove(SkeldaValue name) noexcept {
  skelda::choice(Kind::clearProperties, std::move(name));
}

void SkeldaUserProperties::flag(SkeldaValue name) noexcept {
  skelda::choice(Kind::flagProperties, std::move(name));
}
