// The documents of the format say what the code does.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCounter.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserId.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Platform/Foundation/JSONReader.h"
#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/TemporaryDirectory.h"

using namespace skelda::testing;

namespace {

std::string document(const char* name) {
  return readFile(std::string(SKELDA_DOCS_FOLDER) + "/" + name);
}

/// What stands between "```info" and the next "```"; empty where there is no such block.
std::string fencedBlock(const std::string& text, const std::string& info) {
  const std::size_t begin = text.find("```" + info + "\n");
  if (begin == std::string::npos) return {};
  const std::size_t first = text.find('\n', begin) + 1;
  return text.substr(first, text.find("```", first) - first);
}

/// Lines of an offset, the bytes, and the same as text.
std::string hexDump(std::string_view bytes) {
  std::string dump;
  for (std::size_t line = 0; line < bytes.size(); line += 16) {
    std::string hex;
    std::string text;
    for (const char c : bytes.substr(line, 16)) {
      hex += fmt::format(" {:02x}", static_cast<unsigned char>(c));
      text += c >= 0x20 && c < 0x7F ? c : '.';
    }
    dump += fmt::format("{:08x} {:<48}  {}\n", line, hex, text);
  }
  return dump;
}

template <class Entity>
std::string frameOf(std::shared_ptr<Entity> entity, std::int8_t version) {
  entity->setFrameVersion(version);
  entity->setEpochTimeStamp(1600000000000);
  entity->setRelativeTimeStamp(5000);
  return SkeldaStreamMessageSerializer().frameFromStreamMessage(*entity)->string();
}

/// One entry of the catalogue.
struct Entry {
  std::int32_t frameType = 0;
  std::set<std::string> keys;
  std::string example;
};

/// The first text between backticks.
std::string betweenBackticks(const std::string& line) {
  const std::size_t begin = line.find('`') + 1;
  return line.substr(begin, line.find('`', begin) - begin);
}

/// By the name of the class. An entry is headed "## <type or "no type"> `<class>`", its keys head
/// the rows of a table, and its example is fenced.
std::map<std::string, Entry> catalogue() {
  std::map<std::string, Entry> entries;
  std::istringstream text(document("frame-catalogue.md"));
  Entry* entry = nullptr;
  bool inExample = false;
  for (std::string line; std::getline(text, line);) {
    if (line.starts_with("## ")) {
      entry = &entries[betweenBackticks(line)];
      entry->frameType = line.starts_with("## no type") ? 0 : std::stoi(line.substr(3));
    } else if (entry != nullptr && line.starts_with("```")) {
      inExample = line == "```json";
    } else if (inExample) {
      entry->example += line + "\n";
    } else if (line.starts_with("| `")) {
      EXPECT_TRUE(entry->keys.insert(betweenBackticks(line)).second) << line;
    }
  }
  return entries;
}

/// The keys of a payload and of the objects in it, those excepted that a host makes up.
void addKeys(const platform::Dictionary& payload, std::set<std::string>& keys) {
  static const std::set<std::string> kHostsOwn = {
      "sk.event.user.parameters", "sk.event.skelda.parameters", "sk.consent.strings"};
  for (const auto& [key, value] : payload) {
    keys.insert(key);
    if (value.dictionary() != nullptr && !kHostsOwn.contains(key)) {
      addKeys(*value.dictionary(), keys);
    }
  }
}

}  // namespace

TEST(FrameLogFormatDocument, ShowsTheBytesThatTheAgentWrites) {
  const std::string text = document("frame-log-format.md");
  const auto counter = SkeldaStreamCounter::counterFrameWithCounter(1);
  const auto user = SkeldaStreamUserId::userIdWithUserId("runner-7");
  EXPECT_EQ(fencedBlock(text, "hex log"), hexDump(frameOf(counter, 1) + frameOf(user, 1)));
  EXPECT_EQ(fencedBlock(text, "hex version-0"), hexDump(frameOf(counter, 0)));
}

TEST(FrameCatalogue, HasOneEntryForEveryEntityWithTheKeysThatItCanWrite) {
  auto entries = catalogue();
  for (const EntitySample& sample : entitySamples()) {
    const std::string name(sample.entity->className());
    ASSERT_TRUE(entries.contains(name)) << name;
    const Entry entry = entries.extract(name).mapped();
    EXPECT_EQ(entry.frameType, sample.frameType) << name;
    std::set<std::string> keys;
    addKeys(*sample.entity->dictionaryRepresentation(), keys);
    EXPECT_EQ(entry.keys, keys) << name;
    for (const SkeldaRecordField& field : sample.entity->fields()) {
      EXPECT_TRUE(entry.keys.contains(std::string(field.key))) << name << " " << field.key;
    }

    const auto example = platform::readJSON(entry.example);
    ASSERT_TRUE(example && example->dictionary()) << name << " " << entry.example;
    const auto record = sample.readBack(platform::Data(entry.example.data(), entry.example.size()));
    ASSERT_NE(record, nullptr) << name;
    EXPECT_EQ(record->dictionaryRepresentation(), *example->dictionary()) << name;
  }
  for (const auto& [name, entry] : entries) ADD_FAILURE() << "no such entity: " << name;
}

TEST(FrameCatalogueAndPrivacyPage, TellOfEveryRecordClassThatTheTreeHolds) {
  // What is not among the samples is held against neither page, so none may be missing there.
  std::set<std::string> sampled;
  for (const EntitySample& sample : entitySamples()) {
    sampled.emplace(sample.entity->className());
  }
  const std::string privacy = document("privacy.md");
  for (const auto& row : SkeldaStreamFrameTypeUtil::kTable) {
    EXPECT_TRUE(sampled.contains(std::string(row.className))) << row.className;
    EXPECT_TRUE(privacy.find(fmt::format("| {} ", row.frameType)) != std::string::npos ||
                privacy.find(fmt::format("a frame of type {}", row.frameType)) != std::string::npos)
        << "no place on the privacy page: " << row.frameType;
  }
  const auto entities = std::filesystem::path(SKELDA_DOCS_FOLDER).parent_path() /
                        "Analytics/Streaming/SourceModules/Entities";
  const std::regex record("public SkeldaStreamRecordOf<(\\w+)>");
  std::size_t found = 0;
  for (const auto& file : std::filesystem::directory_iterator(entities)) {
    std::smatch match;
    const std::string text = readFile(file.path());
    if (!std::regex_search(text, match, record)) continue;
    EXPECT_TRUE(sampled.contains(match[1])) << match[1];
    ++found;
  }
  EXPECT_EQ(found, sampled.size());
}

TEST(PrivacyPage, NamesEveryKeyThatARecordCanWriteAndNoOther) {
  // The tables whose first column is "Key"; another table on the page names calls.
  std::set<std::string> documented;
  std::istringstream text(document("privacy.md"));
  bool inKeys = false;
  for (std::string line; std::getline(text, line);) {
    if (!line.starts_with("|")) inKeys = false;
    if (line.starts_with("| Key |")) inKeys = true;
    if (inKeys && line.starts_with("| `")) {
      EXPECT_TRUE(documented.insert(betweenBackticks(line)).second) << line;
    }
  }
  std::set<std::string> written;
  for (const EntitySample& sample : entitySamples()) {
    addKeys(*sample.entity->dictionaryRepresentation(), written);
  }
  EXPECT_EQ(documented, written);
}

TEST(PrivacyPage, NamesEveryFileThatTheAgentKeeps) {
  const AgentHome home;
  const std::string page = document("privacy.md");
  using namespace SkeldaAgentFiles;
  for (const std::string& path :
       {lockFile(), reserveFile(), intakeJournal(), currentFrameLog(),
        commitedFrameLogsFolder() + "/" + commitedFrameLogName(), senderIndex(), kvStorage(),
        inStorageFolder(".skeldaCurrentWatchSessionId")}) {
    const auto support = home.storageFolder().rfind('/') + 1;
    EXPECT_NE(page.find("| `" + path.substr(support)), std::string::npos) << path;
  }
}
