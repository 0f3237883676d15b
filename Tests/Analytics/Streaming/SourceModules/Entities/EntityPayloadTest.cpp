// Every entity class: what it writes, what it reads back, when it refuses.

#include <gtest/gtest.h>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaSessionInitInfo.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamAppInfo.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamConsent.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamDeviceProperties.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamLocaleInfo.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamReportedIdentifers.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionDeviceProperties.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamSessionId.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamTimeZoneInfo.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserBirthdate.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserGender.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserId.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserProperties.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"

using namespace skelda::testing;

namespace {

platform::Data jsonData(std::string_view json) {
  return platform::Data(json.data(), json.size());
}

}  // namespace

TEST(EntityPayload, IsTheSameTextByEveryWayAndComesBackAsItWentIn) {
  for (const EntitySample& sample : entitySamples()) {
    const SkeldaStreamRecord& entity = *sample.entity;
    ASSERT_TRUE(entity.isValidModel()) << entity.className();
    EXPECT_EQ(entity.frameVersion(), 1);
    EXPECT_EQ(entity.jsonRepresentation(), sample.payload) << entity.className();
    EXPECT_EQ(entity.payload()->string(), sample.payload);
    EXPECT_EQ(platform::jsonText(*entity.dictionaryRepresentation()), sample.payload);

    const auto read = sample.readBack(jsonData(sample.payload));
    ASSERT_NE(read, nullptr) << entity.className();
    EXPECT_EQ(read->payload()->string(), sample.payload);
    EXPECT_EQ(read->frameType(), sample.frameType);
    EXPECT_EQ(read->className(), entity.className());
  }
}

TEST(EntityPayload, IsRefusedWhereARequiredKeyIsMissingOrOfTheWrongKind) {
  for (const EntitySample& sample : entitySamples()) {
    const auto name = sample.entity->className();
    platform::Dictionary required;
    for (const SkeldaRecordField& field : sample.entity->fields()) {
      const auto whole = *platform::readJSON(sample.payload)->dictionary();
      platform::Dictionary without = whole;
      ASSERT_TRUE(without.erase(field.key)) << field.key;
      EXPECT_EQ(sample.readBack(jsonData(platform::jsonText(without))) == nullptr, field.isRequired)
          << name << " " << field.key;
      if (!field.isRequired) continue;
      required.append(std::string(field.key), *whole.find(field.key));
      platform::Dictionary wrong = whole;
      wrong.set(std::string(field.key), nullptr);
      EXPECT_EQ(sample.readBack(jsonData(platform::jsonText(wrong))), nullptr)
          << name << " " << field.key;
    }
    EXPECT_NE(sample.readBack(jsonData(platform::jsonText(required))), nullptr) << name;
    for (const char* text : {"", "{", "[]", "null", "7", "\xFF", "{}{}"}) {
      EXPECT_EQ(sample.readBack(jsonData(text)), nullptr) << name << " " << text;
    }
  }
}

TEST(EntityPayload, IsAbsentForARecordThatIsNotValid) {
  const auto nothing = std::nullopt;
  const std::shared_ptr<SkeldaStreamRecord> invalid[] = {
      SkeldaStreamFlush::streamFlushWithStatus(2),
      SkeldaStreamFlush::streamFlushWithStatus(7),
      SkeldaStreamFlush::streamFlushWithStatus(-1),
      SkeldaStreamSessionId::sessionIdWithStartupTime(nothing, 1, 0),
      SkeldaSessionInitInfo::sessionInitInfoWithAgentPlatform(1, 2, nothing, 3, true),
      SkeldaStreamAppInfo::appInfoWithVersion("1", "2", "3", nothing, 0),
      SkeldaStreamAppInfo::appInfoWithVersion(nothing, "2", "3", "4", 0),
      SkeldaStreamDeviceProperties::devicePropertiesWithDeviceModel("m", "o", nothing, "v", 1, 1),
      SkeldaStreamSessionDeviceProperties::sessionDeviceProperties(),
      SkeldaStreamLocaleInfo::streamLocaleInfoWithCountry(nothing, "de"),
      SkeldaStreamLocaleInfo::streamLocaleInfoWithCountry("DE", nothing),
      SkeldaStreamTimeZoneInfo::streamTimeZoneInfoWithTimeZone(nothing),
      SkeldaStreamUserId::userIdWithUserId(nothing),
      SkeldaStreamUserGender::userGenderWithGender(2),
      SkeldaStreamUserGender::userGenderWithGender(-2),
      SkeldaStreamUserBirthdate::userBirthdateWithDate(nothing),
      SkeldaStreamConsent::gdprScope(true, nothing),
      SkeldaStreamUserProperties::updateUserPropertiesName("n", platform::Array{}, 0),
      SkeldaStreamUserProperties::updateUserPropertiesName("n", platform::Array{}, 7),
      SkeldaStreamUserProperties::updateUserPropertiesName(nothing, platform::Array{}, 1),
      SkeldaStreamUserProperties::updateUserPropertiesName("n", nothing, 1),
      std::make_shared<SkeldaStreamUserProperties>(),
  };
  for (const auto& entity : invalid) {
    EXPECT_EQ(entity->payload(), std::nullopt) << entity->className();
    EXPECT_EQ(entity->dictionaryRepresentation(), std::nullopt) << entity->className();
    std::string out = "kept";
    EXPECT_FALSE(entity->appendPayload(out));
    EXPECT_EQ(out, "kept");
  }
}

TEST(EntityPayload, LeavesOutWhatIsNil) {
  const auto nothing = std::nullopt;
  EXPECT_EQ(SkeldaStreamAppInfo("1.2", nothing, nothing, "b", 0).jsonRepresentation(),
            R"({"sk.app.version":"1.2","sk.bundle.id":"b","sk.build.environment":0})");

  SkeldaStreamSessionDeviceProperties started;
  started.setStartProperties(SkeldaStreamSessionTrackedProperties{});
  const auto json = *started.jsonRepresentation();
  EXPECT_EQ(json.find(".end"), std::string::npos);
  EXPECT_EQ(json.find("carrier"), std::string::npos);
  EXPECT_NE(json.find(R"("cpu.load.start":{"value":"0"})"), std::string::npos) << json;
  EXPECT_EQ(SkeldaStreamSessionDeviceProperties::streamEntityFromJSONData(jsonData(json))
                ->endProperties(),
            std::nullopt);

  const SkeldaStreamReportedIdentifers identifiers({{6, "ven"}, {9, "?"}, {15, nothing}}, false);
  EXPECT_EQ(identifiers.jsonRepresentation(),
            R"({"sk.reported.id":{"VendorId":"ven"},"sk.ad.tracking":false})");
}

template <class Record>
constexpr bool kIsCopied = requires(const Record& record) {
  record.copy();
};

TEST(Entity, IsStampedWhenMadeAndItsCopyKeepsTheStampsAndTheSessionsOwnFields) {
  const auto now = platform::Date::now();
  const auto uptime = SkeldaUtil::uptimeInMilliseconds();
  SkeldaStreamSessionId session(platform::Date(), 5, 2);
  const auto epoch = std::chrono::milliseconds(session.epochTimeStamp());
  EXPECT_LT(std::chrono::abs(platform::Date(epoch) - now), std::chrono::seconds(10));
  EXPECT_NEAR(static_cast<double>(session.relativeTimeStamp()), static_cast<double>(uptime), 1e4);
  session.setFrameVersion(0);
  session.setEpochTimeStamp(1);
  session.setRelativeTimeStamp(2);
  session.setElapsedEndTime(7);
  const auto copied = session.copy();
  EXPECT_EQ(copied->frameVersion(), 0);
  EXPECT_EQ(copied->epochTimeStamp(), 1);
  EXPECT_EQ(copied->relativeTimeStamp(), 2);
  EXPECT_EQ(copied->payload(), session.payload());
  // A class that is never sent twice has no copy that could drop its fields.
  EXPECT_TRUE(kIsCopied<SkeldaSessionInitInfo>);
  EXPECT_FALSE(kIsCopied<SkeldaStreamFlush>);
}

TEST(SkeldaStreamSessionId, ReadsItsStartAsAFloatingPointNumber) {
  const auto read = SkeldaStreamSessionId::streamEntityFromJSONData(
      jsonData(R"({"sk.session.id":1,"sk.session.elapsed.start.time":9007199254740993})"));
  EXPECT_EQ(read->elapsedStartTime(), 9007199254740992);
  EXPECT_EQ(read->elapsedEndTime(), 0);
}

TEST(SkeldaStreamSessionId, ComesBackFromItsArchiveAndFromNoOther) {
  SkeldaStreamSessionId session(platform::Date::now(), 5, -2);
  session.setElapsedEndTime(7);
  const platform::KeyedArchive archive = session.archive();
  const auto restored =
      SkeldaStreamSessionId::fromArchive(platform::unarchivedObject(archivedData(archive)));
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->startupTime(), session.startupTime());
  EXPECT_EQ(restored->payload(), session.payload());

  EXPECT_EQ(SkeldaStreamSessionId::fromArchive({"NSDictionary", archive.root}), nullptr);
  EXPECT_EQ(SkeldaStreamSessionId::fromArchive({archive.className, "text"}), nullptr);
  for (const auto& [key, value] : *archive.root.dictionary()) {
    platform::Dictionary without = *archive.root.dictionary();
    without.erase(key);
    EXPECT_EQ(SkeldaStreamSessionId::fromArchive({archive.className, without}), nullptr) << key;
    without.set(key, "text");
    EXPECT_EQ(SkeldaStreamSessionId::fromArchive({archive.className, without}), nullptr) << key;
  }
}

TEST(SkeldaStreamFlush, KnowsTheReasonOfEachStatus) {
  const std::pair<std::int32_t, std::optional<std::string_view>> reasons[] = {
      {0, "DO_NOT_FLUSH"},
      {1, "Sticky set is complete"},
      {2, std::nullopt},
      {3, "Session is finalized"},
      {4, "App has crashed"},
      {5, "Force to flush"},
      {6, "App user has CCPA delete frame"}};
  for (const auto& [status, reason] : reasons) {
    EXPECT_EQ(SkeldaStreamFlush(status).statusString(), reason);
  }
}
