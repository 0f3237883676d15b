#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserId.h"

#include <array>
#include <utility>

#include "Platform/Base/Counted.h"

SkeldaStreamUserId::SkeldaStreamUserId(std::optional<std::string> userId)
    : userId_(std::move(userId)) {}

std::shared_ptr<SkeldaStreamUserId> SkeldaStreamUserId::userIdWithUserId(
    std::optional<std::string> userId) {
  return platform::makeCounted<SkeldaStreamUserId>(std::move(userId));
}

std::span<const SkeldaRecordField> SkeldaStreamUserId::recordFields() noexcept {
  static constexpr std::array kFields{
      SkeldaRecordField::of<&SkeldaStreamUserId::userId_>("sk.demo.userid").required(),
  };
  return kFields;
}
