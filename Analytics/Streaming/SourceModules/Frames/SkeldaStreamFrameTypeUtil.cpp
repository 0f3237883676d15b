#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"

#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Platform.h"

namespace {

// Each container is made on first use and never destroyed: events may come at any time of a
// process's life.
template <class Container, class RowContent>
Container containerOf(RowContent content) {
  Container container;
  for (const auto& row : SkeldaStreamFrameTypeUtil::kTable) container.insert(content(row));
  return container;
}

using Row = SkeldaStreamFrameTypeUtil::Row;

}  // namespace

std::set<std::int32_t> SkeldaStreamFrameTypeUtil::frameTypesWithRole(Role role) {
  std::set<std::int32_t> types;
  for (const Row& row : kTable) {
    if ((row.roles & role) != 0) types.insert(row.frameType);
  }
  return types;
}

const std::set<std::int32_t>& SkeldaStreamFrameTypeUtil::allFrameTypes() {
  using Set = std::set<std::int32_t>;
  static platform::NeverDestroyed<Set> types(
      [] { return containerOf<Set>([](const Row& row) { return row.frameType; }); });
  return *types;
}

const std::map<std::int32_t, std::string_view>& SkeldaStreamFrameTypeUtil::frameTypeToModelClass() {
  using Map = std::map<std::int32_t, std::string_view>;
  static platform::NeverDestroyed<Map> classes([] {
    return containerOf<Map>([](const Row& row) { return std::pair(row.frameType, row.className); });
  });
  return *classes;
}

const std::map<std::string, std::int32_t, std::less<>>&
SkeldaStreamFrameTypeUtil::classToFrameType() {
  using Map = std::map<std::string, std::int32_t, std::less<>>;
  static platform::NeverDestroyed<Map> types([] {
    return containerOf<Map>([](const Row& row) { return std::pair(row.className, row.frameType); });
  });
  return *types;
}
