#include "Analytics/Streaming/Core/StreamComponent/SkeldaNextStageMap.h"

#include <algorithm>

namespace {

constexpr auto kTypeIsBelow = [](const SkeldaNextStageMap::Entry& entry, std::int32_t frameType) {
  return entry.first < frameType;
};

}  // namespace

const SkeldaNextStageMap::Stages* SkeldaNextStageMap::find(std::int32_t frameType) const noexcept {
  const auto at = std::lower_bound(entries_.begin(), entries_.end(), frameType, kTypeIsBelow);
  return at != entries_.end() && at->first == frameType ? &at->second : nullptr;
}

SkeldaNextStageMap::Stages& SkeldaNextStageMap::operator[](std::int32_t frameType) {
  auto at = std::lower_bound(entries_.begin(), entries_.end(), frameType, kTypeIsBelow);
  if (at == entries_.end() || at->first != frameType)
    at = entries_.emplace(at, frameType, Stages{});
  return at->second;
}
