#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"

#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Platform/Foundation/JSONReader.h"
#include "Tests/Support/Documents.h"

namespace skelda::testing {
namespace {

using Read = std::shared_ptr<SkeldaStreamRecord> (*)(const Data&);

template <class Entity>
std::shared_ptr<SkeldaStreamRecord> readBack(const Data& json) {
  return Entity::streamEntityFromJSONData(json);
}
template <class... Entities>
std::map<std::string, Read> readersOf() {
  return {{std::string(Entities::kClassName), &readBack<Entities>}...};
}

/// Free, active, wired and inactive memory, the processors' use, the battery and whether it
/// charges.
SkeldaStreamSessionTrackedProperties snapshot(std::uint64_t seed, float cpu, float battery) {
  return {seed * 6, seed * 4, seed * 2, seed, cpu, battery, battery > 0};
}

/// Where members could be taken for each other the entity is made by hand, otherwise it is read.
std::shared_ptr<SkeldaStreamRecord> madeByHand(std::string_view name) {
  const auto date = SkeldaDateUtil::dateWithTimeIntervalSince1970InMilliseconds(1600000000123);
  if (name == SkeldaStreamSessionId::kClassName) {
    auto session = SkeldaStreamSessionId::sessionIdWithStartupTime(date, 5123, 0);
    session->setElapsedEndTime(605123);
    return session;
  }
  if (name == SkeldaStreamEvent::kClassName) {
    auto event = SkeldaStreamEvent::streamEventWithEventName(
        "LapDone", "CUSTOM_EVENT", true, false, {{"lap", 3}, {"pace", "5:10"}}, nullptr, date);
    event->setEventId(7);
    event->setUptime(5123);
    return event;
  }
  if (name == SkeldaStreamDeviceProperties::kClassName)
    return SkeldaStreamDeviceProperties::devicePropertiesWithDeviceModel("Watch6,2", "9.1", "arm32",
                                                                         "34", 396, 484);
  if (name == SkeldaStreamReportedIdentifers::kClassName) {
    return SkeldaStreamReportedIdentifers::reportedIdentifiersWithSet(
        {{15, "3q2+78r+ur7erb7vyv66vg=="},
         {7, "0f343b0931126a20f133d67c2b018a3b"},
         {6, "5B2B7F0C-95C2-4B7E-9D2A-0D6A6E1F4C11"}},
        false);
  }
  if (name == SkeldaStreamSessionDeviceProperties::kClassName) {
    auto properties = SkeldaStreamSessionDeviceProperties::sessionDeviceProperties();
    properties->setTotalDiskSize(18446744073709551615U);
    properties->setAvailableDiskSize(20132659200);
    properties->setUsedDiskSize(12079595520);
    properties->setTotalMemory(1073741824);
    properties->setLastBootTime(1599999995);
    properties->setCarrierName("unavailable");
    properties->setCarrierMNC("01");
    properties->setCarrierMCC("262");
    properties->setStartProperties(snapshot(67108864, 12.5F, -1));
    properties->setEndProperties(snapshot(33554432, 0.1F, 0.5F));
    return properties;
  }
  return nullptr;
}

std::string betweenBackticks(const std::string& line) {
  const std::size_t begin = line.find('`') + 1;
  return line.substr(begin, line.find('`', begin) - begin);
}

/// An entry is headed "## <type or "no type"> `<class>`", its keys head the rows of a table, and
/// its example is fenced.
std::vector<EntitySample> entriesOfThePage() {
  std::vector<EntitySample> entries;
  std::istringstream page(document("frame-catalogue.md"));
  bool inExample = false;
  for (std::string line; std::getline(page, line);) {
    if (line.starts_with("## ")) {
      entries.emplace_back().name = betweenBackticks(line);
      entries.back().frameType = line.starts_with("## no type") ? 0 : std::stoi(line.substr(3));
    } else if (!entries.empty() && line.starts_with("```")) {
      inExample = line == "```json";
    } else if (inExample) {
      entries.back().payload += line;
    } else if (line.starts_with("| `")) {
      entries.back().keys.insert(betweenBackticks(line));
    }
  }
  return entries;
}

}  // namespace

std::vector<EntitySample> entitySamples() {
  auto readers =
      readersOf<SkeldaSessionInitInfo, SkeldaStreamAppInfo, SkeldaStreamAppOrientation,
                SkeldaStreamAppState, SkeldaStreamCCPADelete, SkeldaStreamCCPAOptOut,
                SkeldaStreamConsent, SkeldaStreamCounter, SkeldaStreamDeviceProperties,
                SkeldaStreamEvent, SkeldaStreamEventSummary, SkeldaStreamFlush,
                SkeldaStreamLocaleInfo, SkeldaStreamNetworkStatus, SkeldaStreamReportedIdentifers,
                SkeldaStreamSessionDeviceProperties, SkeldaStreamSessionId,
                SkeldaStreamTimeZoneInfo, SkeldaStreamUserBirthdate, SkeldaStreamUserGender,
                SkeldaStreamUserId, SkeldaStreamUserProperties>();
  auto samples = entriesOfThePage();
  for (auto& sample : samples) {
    sample.readBack = readers.extract(sample.name).mapped();
    sample.payload = jsonText(readJSON(sample.payload).value());
    sample.entity = madeByHand(sample.name);
    if (!sample.entity) sample.entity = sample.readBack(Data(sample.payload));
  }
  if (!readers.empty()) throw std::runtime_error("no entry: " + readers.begin()->first);
  return samples;
}

}  // namespace skelda::testing
