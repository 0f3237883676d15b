// The index as an archive.

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "Analytics/Networking/DataSender/SkeldaDataSenderIndex.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

constexpr std::string_view kIndex = "index";
constexpr std::string_view kSentReportSuccessfully = "SkeldaSentReportSuccessfulKey";
constexpr std::string_view kChecksum = "checksum";

std::string checksumOf(const SkeldaDataSenderIndex::Map& map) {
  std::uint64_t hash = platform::stableHash({});
  for (const auto& [key, blocks] : map) {
    hash = platform::stableHash("\n", platform::stableHash(key, hash));
    for (const auto& block : blocks) hash = block->checkedAfter(hash);
  }
  return fmt::format("{:016x}", hash);
}

/// Whether an archive spells a dictionary of such keys as JSON does.
bool isPlain(const std::string& key) {
  return !key.starts_with('$') && platform::isValidUTF8(key);
}

/// Where the archiver has a spelling of its own for a key.
platform::Data archivedDataByValues(const SkeldaDataSenderIndex::Map& map,
                                    bool sentReportSuccessfully) {
  platform::Dictionary index;
  for (const auto& [key, blocks] : map) {
    platform::Array entries;
    for (const auto& block : blocks) entries.push_back(block->encoded());
    index.append(key, std::move(entries));
  }
  return platform::archivedData({std::string(SkeldaDataSenderIndex::kArchiveClass),
                                 {{std::string(kIndex), std::move(index)},
                                  {std::string(kSentReportSuccessfully), sentReportSuccessfully},
                                  {std::string(kChecksum), checksumOf(map)}}});
}

}  // namespace

SkeldaDataSenderIndex::Map SkeldaDataSenderIndex::blocksFromArchive(
    const platform::KeyedArchive& archive) {
  Map map;
  const auto* root = archive.root.dictionary();
  const auto* index = root != nullptr ? root->find(kIndex) : nullptr;
  if (index == nullptr || index->dictionary() == nullptr) return map;
  std::set<std::string> seen;
  for (const auto& [key, entries] : *index->dictionary()) {
    if (key.empty() || entries.array() == nullptr) continue;
    auto& blocks = map[key];
    for (const auto& entry : *entries.array()) {
      auto block = SkeldaDataSenderBlockInfo::blockWithCoder(entry);
      if (block == nullptr || !seen.insert(block->identifier()).second) continue;
      blocks.push_back(std::move(block));
    }
  }
  return map;
}

/// Put together from the blocks' own texts, which do not change: it is written with each block.
platform::Data SkeldaDataSenderIndex::archivedDataOf(const Map& map, bool sentReportSuccessfully) {
  std::size_t length = 256;
  for (const auto& [key, blocks] : map) {
    for (const auto& block : blocks) length += block->archivedText().size() + 1;
  }
  std::string text;
  text.reserve(length);
  // Not format_to(), which would bring the formatting of every kind of number into the library.
  text.append("{\"").append(kIndex).append("\":{");
  for (const auto& [key, blocks] : map) {
    if (!isPlain(key)) return archivedDataByValues(map, sentReportSuccessfully);
    text += platform::archivedText(key) + ":[";
    for (const auto& block : blocks) {
      text += block->archivedText();
      text += ',';
    }
    if (text.back() == ',') text.pop_back();
    text += "],";
  }
  if (text.back() == ',') text.pop_back();
  text.append("},\"").append(kSentReportSuccessfully);
  text.append(sentReportSuccessfully ? "\":true,\"" : "\":false,\"").append(kChecksum);
  text.append("\":\"").append(checksumOf(map)).append("\"}");
  return platform::archivedData(kArchiveClass, text);
}

bool SkeldaDataSenderIndex::isUndamaged(const platform::KeyedArchive& archive) {
  const auto* root = archive.root.dictionary();
  const auto* checksum = root != nullptr ? root->find(kChecksum) : nullptr;
  if (checksum == nullptr) return root != nullptr;
  return checksum->text() != nullptr && *checksum->text() == checksumOf(blocksFromArchive(archive));
}

bool SkeldaDataSenderIndex::saysSentReportSuccessfully(const platform::KeyedArchive& archive) {
  const auto* root = archive.root.dictionary();
  const auto* flag = root != nullptr ? root->find(kSentReportSuccessfully) : nullptr;
  return flag != nullptr && flag->boolValue();
}
