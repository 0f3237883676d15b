#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserProperties.h"

#include <array>
#include <atomic>
#include <utility>

#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"

namespace {

std::uint32_t nextUserPropertyId() {
  static std::atomic<std::uint32_t> last{0};
  return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

SkeldaStreamUserProperties::SkeldaStreamUserProperties(std::optional<std::string> name,
                                                       std::optional<platform::Array> values,
                                                       std::uint32_t callType)
    : userPropertyId_(nextUserPropertyId()),
      propertyName_(std::move(name)),
      propertyValues_(std::move(values)),
      callType_(callType),
      uptime_(SkeldaUtil::uptimeInMilliseconds()) {}

std::shared_ptr<SkeldaStreamUserProperties> SkeldaStreamUserProperties::updateUserPropertiesName(
    std::optional<std::string> name, std::optional<platform::Array> values,
    std::uint32_t callType) {
  return platform::makeCounted<SkeldaStreamUserProperties>(std::move(name), std::move(values),
                                                           callType);
}

std::span<const SkeldaRecordField> SkeldaStreamUserProperties::recordFields() noexcept {
  using Self = SkeldaStreamUserProperties;
  static constexpr std::array kFields{
      SkeldaRecordField::of<&Self::userPropertyId_>("sk.user.property.id").required(),
      SkeldaRecordField::of<&Self::uptime_>("sk.user.property.uptime").required(),
      SkeldaRecordField::of<&Self::propertyName_>("sk.user.property.key").required(),
      SkeldaRecordField::of<&Self::propertyValues_>("sk.user.property.values").required(),
      SkeldaRecordField::of<&Self::callType_>("sk.user.property.call.type").required(),
  };
  return kFields;
}

void SkeldaStreamUserProperties::takeOrigin(const SkeldaIntakeOrigin& origin) noexcept {
  SkeldaStreamRecord::takeOrigin(origin);
  if (origin.ticket != kSkeldaNoTicket) uptime_ = origin.uptimeMilliseconds;
}

bool SkeldaStreamUserProperties::isValidModel() const {
  return SkeldaStreamRecord::isValidModel() && callType_ >= 1 && callType_ <= 6 && uptime_ >= 0 &&
         userPropertyId_ != 0;
}
