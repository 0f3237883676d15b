#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamDeviceProperties.h"

#include <algorithm>
#include <array>
#include <utility>

#include "Platform/Base/Counted.h"

namespace {

constexpr std::string_view kObjectKey = "sk.device.properties";

}  // namespace

SkeldaStreamDeviceProperties::SkeldaStreamDeviceProperties(
    std::optional<std::string> deviceModel, std::optional<std::string> deviceOSVersion,
    std::optional<std::string> deviceArch, std::optional<std::string> appVersion,
    std::uint32_t screenWidth, std::uint32_t screenHeight)
    : deviceModel_(std::move(deviceModel)),
      deviceOSVersion_(std::move(deviceOSVersion)),
      deviceArch_(std::move(deviceArch)),
      appVersionFromBundle_(std::move(appVersion)),
      screenWidth_(screenWidth),
      screenHeight_(screenHeight) {}

std::shared_ptr<SkeldaStreamDeviceProperties>
SkeldaStreamDeviceProperties::devicePropertiesWithDeviceModel(
    std::optional<std::string> deviceModel, std::optional<std::string> deviceOSVersion,
    std::optional<std::string> deviceArch, std::optional<std::string> appVersion,
    std::uint32_t screenWidth, std::uint32_t screenHeight) {
  return platform::makeCounted<SkeldaStreamDeviceProperties>(
      std::move(deviceModel), std::move(deviceOSVersion), std::move(deviceArch),
      std::move(appVersion), screenWidth, screenHeight);
}

std::span<const SkeldaRecordField> SkeldaStreamDeviceProperties::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamDeviceProperties::deviceProperties>(kObjectKey).required(),
  };
  return kFields;
}

/// The members of the one object of the payload; each is written as text, whatever its kind.
std::span<const SkeldaRecordField> SkeldaStreamDeviceProperties::memberFields() noexcept {
  using Self = SkeldaStreamDeviceProperties;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::deviceArch_>("device.arch").required(),
      SkeldaRecordField::of<&Self::deviceOSVersion_>("device.os.version").required(),
      SkeldaRecordField::of<&Self::deviceModel_>("device.model.1").required(),
      SkeldaRecordField::of<&Self::screenHeight_>("scr.height").required(),
      SkeldaRecordField::of<&Self::screenWidth_>("scr.width").required(),
      SkeldaRecordField::of<&Self::appVersionFromBundle_>("bnd.ver").required(),
  };
  return kFields;
}

bool SkeldaStreamDeviceProperties::isValidModel() const {
  return deviceModel_ && deviceOSVersion_ && deviceArch_ && appVersionFromBundle_;
}

platform::Value SkeldaStreamDeviceProperties::deviceProperties() const {
  platform::Dictionary object;
  for (const SkeldaRecordField& field : memberFields()) {
    object.append(std::string(field.key), valueOf(field).description());
  }
  return object;
}

bool SkeldaStreamDeviceProperties::didRead(const platform::Dictionary& dictionary) {
  const platform::Dictionary* object = dictionary.find(kObjectKey)->dictionary();
  if (object == nullptr || !holdsRequired(memberFields(), *object)) return false;
  return std::ranges::all_of(memberFields(), [&](const SkeldaRecordField& field) {
    return setMember(field, *object->find(field.key));
  });
}
