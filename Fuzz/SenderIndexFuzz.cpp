// The sender index from hostile bytes: whatever they hold, only files that can be a block's are
// named, each once, and what was read is written and read back the same.

#include "Analytics/Networking/DataSender/SkeldaDataSenderIndex.h"
#include "Fuzz/Fuzz.h"
#include "Platform/Foundation/Exception.h"

namespace {

using Map = SkeldaDataSenderIndex::Map;

Map read(const platform::Data& bytes) {
  return SkeldaDataSenderIndex::blocksFromArchive(platform::unarchivedObject(bytes));
}

}  // namespace

void fuzz(std::string_view bytes) {
  Map map;
  try {
    map = read(platform::Data(bytes.data(), bytes.size()));
  } catch (const platform::Exception&) {
    return;
  }
  std::set<std::string> named;
  for (const auto& [key, blocks] : map) {
    require(!key.empty());
    for (const auto& block : blocks) {
      require(SkeldaDataSenderBlockInfo::isBlockFileName(block->identifier()));
      require(named.insert(block->identifier()).second);
      static_cast<void>(block->description());
    }
  }
  const Map again = read(SkeldaDataSenderIndex::archivedDataOf(map, true));
  require(again.size() == map.size());
  for (const auto& [key, blocks] : map) {
    require(std::ranges::equal(again.at(key), blocks, [](const auto& one, const auto& other) {
      return one->encoded() == other->encoded();
    }));
  }
}
