#pragma once

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "Analytics/Streaming/Core/StreamComponent/ISkeldaStreamComponent.h"

/// Frame type to the stages that take it, in order of registration. A sorted run of some twenty
/// entries: the look-up is on the path of every message. A value, no lock.
class SkeldaNextStageMap {
 public:
  using Stages = std::vector<std::shared_ptr<ISkeldaStreamComponent>>;
  using Entry = std::pair<std::int32_t, Stages>;

  /// The stages for `frameType`, or null. Valid until the map changes.
  const Stages* find(std::int32_t frameType) const noexcept;
  /// The stages for `frameType`, made empty where there are none.
  Stages& operator[](std::int32_t frameType);
  std::size_t size() const noexcept { return entries_.size(); }
  std::vector<Entry>::const_iterator begin() const noexcept { return entries_.begin(); }
  std::vector<Entry>::const_iterator end() const noexcept { return entries_.end(); }

 private:
  std::vector<Entry> entries_;
};
