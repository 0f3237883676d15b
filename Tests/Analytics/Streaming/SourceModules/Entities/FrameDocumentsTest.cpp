#include <regex>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Analytics/Utils/SkeldaAgentFiles.h"
#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/Documents.h"

namespace {

template <class Entity>
std::string frameOf(std::shared_ptr<Entity> entity, std::int8_t version) {
  entity->setFrameVersion(version);
  entity->setEpochTimeStamp(1600000000000);
  entity->setRelativeTimeStamp(5000);
  return SkeldaStreamMessageSerializer().frameFromStreamMessage(*entity)->string();
}

/// The keys of a payload and of the objects in it, those excepted that a host makes up.
void addKeys(const Dictionary& payload, std::set<std::string>& keys) {
  static const std::set<std::string> kHostsOwn = {
      "sk.event.user.parameters", "sk.event.skelda.parameters", "sk.consent.strings"};
  for (const auto& [key, value] : payload) {
    keys.insert(key);
    if (value.dictionary() != nullptr && !kHostsOwn.contains(key))
      addKeys(*value.dictionary(), keys);
  }
}

TEST(FrameLogFormatDocument, ShowsTheBytesThatTheAgentWrites) {
  const auto counter = SkeldaStreamCounter::counterFrameWithCounter(1);
  const auto user = SkeldaStreamUserId::userIdWithUserId("runner-7");
  EXPECT_EQ(fencedBlock("frame-log-format.md", "hex log"),
            hexDump(frameOf(counter, 1) + frameOf(user, 1)));
  EXPECT_EQ(fencedBlock("frame-log-format.md", "hex version-0"), hexDump(frameOf(counter, 0)));
}

TEST(FrameCatalogue, TellsTheKeysThatEachRecordCanWriteAndTheReasonsOfAFlush) {
  for (const EntitySample& sample : entitySamples()) {
    std::set<std::string> keys;
    addKeys(*sample.entity->dictionaryRepresentation(), keys);
    EXPECT_EQ(sample.keys, keys) << sample.name;
    for (const SkeldaRecordField& field : sample.entity->fields())
      EXPECT_TRUE(sample.keys.contains(std::string(field.key))) << sample.name << " " << field.key;
  }
  for (const std::int32_t status : {0, 1, 3, 4, 5, 6}) {
    const auto reason = fmt::format("{} \"{}\"", status, *SkeldaStreamFlush(status).statusString());
    EXPECT_NE(document("frame-catalogue.md").find(reason), std::string::npos) << reason;
  }
}

TEST(FrameCatalogueAndPrivacyPage, TellOfEveryRecordClassThatTheTreeHolds) {
  // What is not among the samples is held against neither page, so none may be missing there.
  std::set<std::string> sampled;
  for (const EntitySample& sample : entitySamples()) sampled.insert(sample.name);
  const std::string privacy = document("privacy.md");
  for (const auto& row : SkeldaStreamFrameTypeUtil::kTable) {
    EXPECT_TRUE(sampled.contains(std::string(row.className))) << row.className;
    const std::string places[] = {fmt::format("| {} ", row.frameType),
                                  fmt::format("a frame of type {}", row.frameType)};
    EXPECT_TRUE(privacy.find(places[0]) != privacy.npos || privacy.find(places[1]) != privacy.npos)
        << "no place on the privacy page: " << row.frameType;
  }
  const auto entities =
      std::string(SKELDA_DOCS_FOLDER) + "/../Analytics/Streaming/SourceModules/Entities";
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
    if (!inKeys || !line.starts_with("| `")) continue;
    EXPECT_TRUE(documented.insert(line.substr(3, line.find('`', 3) - 3)).second) << line;
  }
  std::set<std::string> written;
  for (auto& each : entitySamples()) addKeys(*each.entity->dictionaryRepresentation(), written);
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

}  // namespace
