#include "Analytics/Networking/DataSender/SkeldaDataSenderIndex.h"
#include "Fuzz/Fuzz.h"
#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/KeyedArchive.h"

// The sender index from hostile bytes: whatever they hold, only files that can be a block's are
// named, each once, and what was read is written and read back the same.

namespace {

using Map = SkeldaDataSenderIndex::Map;

Map read(const platform::Data& bytes) {
  return SkeldaDataSenderIndex::blocksFromArchive(platform::unarchivedObject(bytes));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  Map map;
  try {
    map = read(platform::Data(bytes, size));
  } catch (const platform::Exception&) {
    return 0;
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
    const auto& others = again.at(key);
    require(others.size() == blocks.size());
    for (std::size_t i = 0; i < blocks.size(); ++i) {
      require(others[i]->encoded() == blocks[i]->encoded());
    }
  }
  return 0;
}
