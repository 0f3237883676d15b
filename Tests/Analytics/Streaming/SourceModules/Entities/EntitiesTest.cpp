// Every entity class: what it writes, what it reads back, when it refuses; and what an event takes.

#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/TextCoding.h"
#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"

namespace {

TEST(EntityPayload, IsTheSameTextByEveryWayAndComesBackAsItWentIn) {
  for (const EntitySample& sample : entitySamples()) {
    const SkeldaStreamRecord& entity = *sample.entity;
    ASSERT_TRUE(entity.isValidModel()) << sample.name;
    EXPECT_EQ(entity.frameVersion(), 1);
    EXPECT_EQ(entity.frameType(), sample.frameType) << sample.name;
    EXPECT_EQ(entity.className(), sample.name);
    EXPECT_EQ(entity.jsonRepresentation(), sample.payload) << sample.name;
    EXPECT_EQ(entity.payload()->string(), sample.payload);
    EXPECT_EQ(jsonText(*entity.dictionaryRepresentation()), sample.payload);

    const auto read = sample.readBack(Data(sample.payload));
    ASSERT_NE(read, nullptr) << entity.className();
    EXPECT_EQ(read->payload()->string(), sample.payload);
    EXPECT_EQ(read->frameType(), sample.frameType);
    EXPECT_EQ(read->className(), entity.className());
  }
}

TEST(EntityPayload, IsRefusedWhereARequiredKeyIsMissingOrOfTheWrongKind) {
  for (const EntitySample& sample : entitySamples()) {
    const auto name = sample.entity->className();
    Dictionary required;
    for (const SkeldaRecordField& field : sample.entity->fields()) {
      const auto whole = *readJSON(sample.payload)->dictionary();
      Dictionary without = whole;
      ASSERT_TRUE(without.erase(field.key)) << field.key;
      EXPECT_EQ(sample.readBack(Data(jsonText(without))) == nullptr, field.isRequired)
          << name << " " << field.key;
      if (!field.isRequired) continue;
      required.append(std::string(field.key), *whole.find(field.key));
      Dictionary wrong = whole;
      wrong.set(std::string(field.key), nullptr);
      EXPECT_EQ(sample.readBack(Data(jsonText(wrong))), nullptr) << name << " " << field.key;
    }
    EXPECT_NE(sample.readBack(Data(jsonText(required))), nullptr) << name;
    for (const char* text : {"", "{", "[]", "null", "7", "\xFF", "{}{}"})
      EXPECT_EQ(sample.readBack(Data(text)), nullptr) << name << " " << text;
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
      SkeldaStreamDeviceProperties::devicePropertiesWithDeviceModel("m", "o", nothing, "v", 1, 1),
      SkeldaStreamSessionDeviceProperties::sessionDeviceProperties(),
      SkeldaStreamLocaleInfo::streamLocaleInfoWithCountry(nothing, "de"),
      SkeldaStreamTimeZoneInfo::streamTimeZoneInfoWithTimeZone(nothing),
      SkeldaStreamUserId::userIdWithUserId(nothing),
      SkeldaStreamUserGender::userGenderWithGender(2),
      SkeldaStreamUserBirthdate::userBirthdateWithDate(nothing),
      SkeldaStreamConsent::gdprScope(true, nothing),
      SkeldaStreamUserProperties::updateUserPropertiesName("n", Array{}, 0),
      SkeldaStreamUserProperties::updateUserPropertiesName("n", Array{}, 7),
      SkeldaStreamUserProperties::updateUserPropertiesName(nothing, Array{}, 1),
      SkeldaStreamUserProperties::updateUserPropertiesName("n", nothing, 1),
      std::make_shared<SkeldaStreamUserProperties>(),
      SkeldaStreamUserProperties::streamEntityFromJSONData(
          Data(R"({"sk.user.property.id":0,"sk.user.property.uptime":1,)"
               R"("sk.user.property.key":"k","sk.user.property.values":["v"],)"
               R"("sk.user.property.call.type":1})"))};
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
  const auto read = SkeldaStreamSessionDeviceProperties::streamEntityFromJSONData(Data(json));
  EXPECT_EQ(read->endProperties(), std::nullopt);

  const SkeldaStreamReportedIdentifers identifiers({{6, "ven"}, {9, "?"}, {15, nothing}}, false);
  EXPECT_EQ(identifiers.jsonRepresentation(),
            R"({"sk.reported.id":{"VendorId":"ven"},"sk.ad.tracking":false})");
}

TEST(Entity, IsStampedWhenMadeAndItsCopyKeepsTheStampsAndTheSessionsOwnFields) {
  const auto now = Date::now();
  const auto uptime = SkeldaUtil::uptimeInMilliseconds();
  SkeldaStreamSessionId session(Date(), 5, 2);
  const auto epoch = std::chrono::milliseconds(session.epochTimeStamp());
  EXPECT_LT(std::chrono::abs(Date(epoch) - now), 10s);
  EXPECT_NEAR(static_cast<double>(session.relativeTimeStamp()), static_cast<double>(uptime), 1e4);
  session.setFrameVersion(0);
  session.setEpochTimeStamp(1);
  session.setRelativeTimeStamp(2);
  session.setElapsedEndTime(7);
  const auto copied = session.copy();
  EXPECT_EQ(std::tuple(copied->frameVersion(), copied->epochTimeStamp(),
                       copied->relativeTimeStamp(), copied->payload()),
            std::tuple(0, 1, 2, session.payload()));
}

TEST(SkeldaStreamSessionId, ReadsItsStartAsAFloatingPointNumber) {
  const auto read = SkeldaStreamSessionId::streamEntityFromJSONData(
      Data(R"({"sk.session.id":1,"sk.session.elapsed.start.time":9007199254740993})"));
  EXPECT_EQ(read->elapsedStartTime(), 9007199254740992);
  EXPECT_EQ(read->elapsedEndTime(), 0);
}

TEST(SkeldaStreamSessionId, ComesBackFromItsArchiveAndFromNoOther) {
  SkeldaStreamSessionId session(Date::now(), 5, -2);
  session.setElapsedEndTime(7);
  const KeyedArchive archive = session.archive();
  const auto restored = SkeldaStreamSessionId::fromArchive(unarchivedObject(archivedData(archive)));
  EXPECT_EQ(restored->startupTime(), session.startupTime());
  EXPECT_EQ(restored->payload(), session.payload());

  EXPECT_EQ(SkeldaStreamSessionId::fromArchive({"NSDictionary", archive.root}), nullptr);
  EXPECT_EQ(SkeldaStreamSessionId::fromArchive({archive.className, "text"}), nullptr);
  for (const auto& [key, value] : *archive.root.dictionary()) {
    Dictionary without = *archive.root.dictionary();
    without.erase(key);
    EXPECT_EQ(SkeldaStreamSessionId::fromArchive({archive.className, without}), nullptr) << key;
    without.set(key, "text");
    EXPECT_EQ(SkeldaStreamSessionId::fromArchive({archive.className, without}), nullptr) << key;
  }
}

constexpr std::int64_t kNoon = 1600000000000;

const auto dateAt = &SkeldaDateUtil::dateWithTimeIntervalSince1970InMilliseconds;

std::shared_ptr<SkeldaStreamEvent> event(const Value& parameters, bool timed = false,
                                         std::shared_ptr<SkeldaTransaction> transaction = nullptr,
                                         std::int64_t at = kNoon) {
  return SkeldaStreamEvent::streamEventWithEventName(
      "name", "CUSTOM_EVENT", timed, timed, parameters, std::move(transaction), dateAt(at));
}

/// Parameters "<prefix>0" to "<prefix>count-1", each with the value `value`.
Dictionary parameters(int count, const std::string& prefix = "k", const char* value = "v") {
  Dictionary dictionary;
  for (int i = 0; i < count; ++i) dictionary.append(prefix + std::to_string(i), value);
  return dictionary;
}

TEST(SkeldaStreamEvent, LeavesOutWhatIsEmptyAndOfElevenParametersAllButTheirCount) {
  EXPECT_EQ(event({{"n", 3}, {"", "x"}, {"empty", ""}, {"bad", "\xFF"}})->parameters(),
            (Dictionary{{base64Encoded("n"), base64Encoded("3")}}));
  EXPECT_EQ(event(parameters(10))->parameters().size(), 10U);
  const auto purchase = SkeldaTransaction::transactionUsingUserDictionary({{"sk.ProductID", "p"}});
  const auto eleven = event(parameters(11), false, purchase);
  EXPECT_TRUE(eleven->parameters().empty());
  EXPECT_EQ(eleven->skeldaParameters(),
            (Dictionary{{base64Encoded("sk.parameter.limit.exceeded"), base64Encoded("11")},
                        {base64Encoded("sk.ProductID"), base64Encoded("p")},
                        {base64Encoded("sk.store.id"), base64Encoded("1")}}));
  EXPECT_EQ(SkeldaStreamEvent::streamEntityFromJSONData(*eleven->payload())->skeldaParameters(),
            eleven->skeldaParameters());
}

TEST(SkeldaStreamEvent, IsNotValidWithoutANameOrATime) {
  const auto make = [](std::optional<std::string_view> name, std::optional<Date> date) {
    return SkeldaStreamEvent::streamEventWithEventName(name, std::nullopt, false, false, nullptr,
                                                       nullptr, date);
  };
  for (const auto name : {std::optional<std::string_view>(), {""}, {"\xFF"}})
    EXPECT_EQ(make(name, dateAt(1))->payload(), std::nullopt);
  const auto undated = make("name", std::nullopt);
  EXPECT_EQ(undated->payload(), std::nullopt);
  undated->populateEndEventFields(*undated);
  EXPECT_EQ(undated->duration(), 0);
  const auto json = make("name", dateAt(1))->jsonRepresentation().value();
  EXPECT_EQ(json.find("sk.event.type"), std::string::npos);
}

TEST(SkeldaStreamEvent, EndsWithTheIdOfItsStartAndTheTimeBetween) {
  const auto start = event({{"k", "start"}}, true);
  const auto end = start->counterpartEndTimedEventWithTimestamp(dateAt(kNoon + 1500));
  ASSERT_NE(end, nullptr);
  EXPECT_EQ(start->uptime(), start->relativeTimeStamp() + kNoon - start->epochTimeStamp());
  EXPECT_EQ(end->uptime(), start->uptime() + 1500);
  end->populateEndEventFields(*start);
  EXPECT_EQ(end->duration(), 1500);
  const auto json = *end->dictionaryRepresentation();
  const std::pair<const char*, Value> fields[] = {{"sk.event.id", start->eventId()},
                                                  {"sk.event.name", base64Encoded("name")},
                                                  {"sk.event.timed", true},
                                                  {"sk.timed.event.starting", false}};
  for (const auto& [key, value] : fields) EXPECT_EQ(*json.find(key), value) << key;
  EXPECT_EQ(event(nullptr)->counterpartEndTimedEventWithTimestamp(dateAt(kNoon)), nullptr);
}

TEST(SkeldaStreamEvent, MergesTheParametersOfStartAndEndUpToTheLimit) {
  Dictionary atStart = parameters(4, "s"), atEnd = parameters(5, "e");
  atStart.append("uuid", "1");
  atStart.append("both", "start");
  atEnd.append("both", "end");
  const auto start = event(atStart, true), end = event(atEnd, true);
  end->populateEndEventFields(*start);
  EXPECT_EQ(end->parameters().size(), 10U);
  EXPECT_EQ(*end->parameters().find(base64Encoded("both")), base64Encoded("end"));
  EXPECT_FALSE(end->parameters().contains(base64Encoded("uuid")));
  EXPECT_TRUE(end->parameters().contains(base64Encoded("s3")));

  atEnd.append("one", "more");
  const auto crowded = event(atEnd, true);
  crowded->populateEndEventFields(*start);
  EXPECT_EQ(crowded->parameters().size(), 7U) << "past the limit the end keeps its own";
  const auto purchase = event(atEnd, true, std::make_shared<SkeldaTransaction>());
  purchase->populateEndEventFields(*start);
  EXPECT_EQ(purchase->parameters().size(), 11U) << "a purchase is not held to it";
}

TEST(SkeldaTransaction, WritesAndReadsItsDictionariesArchivesAndCopies) {
  const Dictionary full{{"sk.Price", "3.5"},    {"sk.ProductName", "n"},
                        {"sk.Quantity", "2"},   {"sk.country.code", "DE"},
                        {"sk.store.id", "9"},   {"sk.TransactionIdentifier", "t"},
                        {"sk.ProductID", "p"},  {"sk.Receipt", Data("\0\xFFr", 3)},
                        {"sk.Currency", "EUR"}, {"sk.OriginalTransactionIdentifier", "o"}};
  auto transaction = SkeldaTransaction::transactionUsingDictionary(full);
  EXPECT_EQ(transaction->dictionaryRepresentation(), full);
  const auto encodedForm = transaction->encoded2TransactionDictionary();
  EXPECT_EQ(encodedForm.size(), 10U);
  EXPECT_EQ(*encodedForm.find(base64Encoded("sk.Receipt")), base64Encoded({"\0\xFFr", 3}));

  transaction->setTransactionState("Success");
  const auto archive = transaction->archive();
  EXPECT_TRUE(archive.root.dictionary()->contains("quanity"));
  const auto restored = SkeldaTransaction::fromArchive(unarchivedObject(archivedData(archive)));
  EXPECT_EQ(restored->storeId(), std::nullopt) << "archives do without it";
  EXPECT_EQ(restored->transactionState(), "Success");
  transaction->setStoreId(std::nullopt);
  EXPECT_EQ(restored->dictionaryRepresentation(), transaction->dictionaryRepresentation());
  EXPECT_EQ(SkeldaTransaction::fromArchive({"Other", archive.root}), nullptr);
  EXPECT_EQ(SkeldaTransaction::fromArchive({archive.className, Dictionary{{"price", 1}}}), nullptr);
}

TEST(SkeldaTransaction, TakesFromAHostWhatAHostMaySay) {
  const Dictionary said{{"sk.Receipt", "text"},
                        {"sk.OriginalTransactionIdentifier", "o"},
                        {"sk.Price", 3.5},
                        {"sk.store.id", "9"}};
  EXPECT_EQ(SkeldaTransaction::transactionUsingUserDictionary(said)->dictionaryRepresentation(),
            (Dictionary{{"sk.Price", "3.5"}, {"sk.store.id", "1"}}));
}

}  // namespace
