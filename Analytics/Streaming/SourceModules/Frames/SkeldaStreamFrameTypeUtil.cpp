#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"

// Each container is made on first use and never destroyed: events may come at any time of a
// process's life.

const std::map<std::int32_t, std::string_view>& SkeldaStreamFrameTypeUtil::frameTypeToModelClass() {
  static const auto& classes = *[] {
    auto* map = new std::map<std::int32_t, std::string_view>();
    for (const Row& row : kTable) map->emplace(row.frameType, row.className);
    return map;
  }();
  return classes;
}

const std::set<std::int32_t>& SkeldaStreamFrameTypeUtil::allFrameTypes() {
  static const auto& types = *[] {
    auto* set = new std::set<std::int32_t>();
    for (const Row& row : kTable) set->insert(row.frameType);
    return set;
  }();
  return types;
}

const std::map<std::string, std::int32_t, std::less<>>&
SkeldaStreamFrameTypeUtil::classToFrameType() {
  static const auto& types = *[] {
    auto* map = new std::map<std::string, std::int32_t, std::less<>>();
    for (const Row& row : kTable) map->emplace(row.className, row.frameType);
    return map;
  }();
  return types;
}
