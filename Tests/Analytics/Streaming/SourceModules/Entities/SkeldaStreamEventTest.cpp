#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEvent.h"

#include <gtest/gtest.h>

#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

constexpr std::int64_t kNoon = 1600000000000;

std::string encoded(std::string_view text) {
  return platform::base64Encoded(text);
}

platform::Date dateAt(std::int64_t milliseconds) {
  return SkeldaDateUtil::dateWithTimeIntervalSince1970InMilliseconds(milliseconds);
}

std::shared_ptr<SkeldaStreamEvent> event(const platform::Value& parameters, bool timed = false,
                                         std::shared_ptr<SkeldaTransaction> transaction = nullptr,
                                         std::int64_t at = kNoon) {
  return SkeldaStreamEvent::streamEventWithEventName(
      "name", "CUSTOM_EVENT", timed, timed, parameters, std::move(transaction), dateAt(at));
}

/// Parameters "<prefix>0" to "<prefix>count-1", each with the value `value`.
platform::Dictionary parameters(int count, const std::string& prefix = "k",
                                const char* value = "v") {
  platform::Dictionary dictionary;
  for (int i = 0; i < count; ++i) dictionary.append(prefix + std::to_string(i), value);
  return dictionary;
}

}  // namespace

TEST(SkeldaStreamEvent, LeavesOutWhatIsEmptyAndOfElevenParametersAllButTheirCount) {
  EXPECT_EQ(event({{"n", 3}, {"", "x"}, {"empty", ""}, {"bad", "\xFF"}})->parameters(),
            (platform::Dictionary{{encoded("n"), encoded("3")}}));
  EXPECT_EQ(event(parameters(10))->parameters().size(), 10U);
  const auto purchase = SkeldaTransaction::transactionUsingUserDictionary({{"sk.ProductID", "p"}});
  const auto eleven = event(parameters(11), false, purchase);
  EXPECT_TRUE(eleven->parameters().empty());
  EXPECT_EQ(eleven->skeldaParameters(),
            (platform::Dictionary{{encoded("sk.parameter.limit.exceeded"), encoded("11")},
                                  {encoded("sk.ProductID"), encoded("p")},
                                  {encoded("sk.store.id"), encoded("1")}}));
  EXPECT_EQ(SkeldaStreamEvent::streamEntityFromJSONData(*eleven->payload())->skeldaParameters(),
            eleven->skeldaParameters());
}

TEST(SkeldaStreamEvent, IsNotValidWithoutANameOrATime) {
  const auto make = [](std::optional<std::string_view> name, std::optional<platform::Date> date) {
    return SkeldaStreamEvent::streamEventWithEventName(name, std::nullopt, false, false, nullptr,
                                                       nullptr, date);
  };
  EXPECT_EQ(make(std::nullopt, dateAt(1))->payload(), std::nullopt);
  EXPECT_EQ(make("", dateAt(1))->payload(), std::nullopt);
  EXPECT_EQ(make("\xFF", dateAt(1))->payload(), std::nullopt);
  EXPECT_EQ(make("name", std::nullopt)->payload(), std::nullopt);
  const auto json = make("name", dateAt(1))->jsonRepresentation();
  ASSERT_TRUE(json);
  EXPECT_EQ(json->find("sk.event.type"), std::string::npos);
}

TEST(SkeldaStreamEvent, EndsWithTheIdOfItsStartAndTheTimeBetween) {
  const auto start = event({{"k", "start"}}, true);
  const auto end = start->counterpartEndTimedEventWithTimestamp(dateAt(kNoon + 1500));
  ASSERT_NE(end, nullptr);
  EXPECT_EQ(end->uptime(), start->uptime() + 1500);
  end->populateEndEventFields(*start);
  EXPECT_EQ(end->duration(), 1500);
  const auto json = *end->dictionaryRepresentation();
  EXPECT_EQ(*json.find("sk.event.id"), start->eventId());
  EXPECT_EQ(*json.find("sk.event.name"), encoded("name"));
  EXPECT_EQ(*json.find("sk.event.timed"), true);
  EXPECT_EQ(*json.find("sk.timed.event.starting"), false);

  EXPECT_EQ(event(nullptr)->counterpartEndTimedEventWithTimestamp(dateAt(kNoon)), nullptr);
}

TEST(SkeldaStreamEvent, MergesTheParametersOfStartAndEndUpToTheLimit) {
  platform::Dictionary atStart = parameters(4, "s");
  atStart.append("uuid", "1");
  atStart.append("both", "start");
  platform::Dictionary atEnd = parameters(5, "e");
  atEnd.append("both", "end");
  const auto start = event(atStart, true);

  const auto end = event(atEnd, true);
  end->populateEndEventFields(*start);
  EXPECT_EQ(end->parameters().size(), 10U);
  EXPECT_EQ(*end->parameters().find(encoded("both")), encoded("end"));
  EXPECT_FALSE(end->parameters().contains(encoded("uuid")));
  EXPECT_TRUE(end->parameters().contains(encoded("s3")));

  atEnd.append("one", "more");
  const auto crowded = event(atEnd, true);
  crowded->populateEndEventFields(*start);
  EXPECT_EQ(crowded->parameters().size(), 7U) << "past the limit the end keeps its own";
  const auto purchase = event(atEnd, true, std::make_shared<SkeldaTransaction>());
  purchase->populateEndEventFields(*start);
  EXPECT_EQ(purchase->parameters().size(), 11U) << "a purchase is not held to it";
}

TEST(SkeldaTransaction, WritesAndReadsItsDictionariesArchivesAndCopies) {
  const platform::Dictionary full{{"sk.TransactionIdentifier", "t"},
                                  {"sk.OriginalTransactionIdentifier", "o"},
                                  {"sk.ProductID", "p"},
                                  {"sk.Quantity", "2"},
                                  {"sk.Price", "3.5"},
                                  {"sk.Currency", "EUR"},
                                  {"sk.ProductName", "n"},
                                  {"sk.Receipt", platform::Data("\0\xFFr", 3)},
                                  {"sk.store.id", "9"},
                                  {"sk.country.code", "DE"}};
  auto transaction = SkeldaTransaction::transactionUsingDictionary(full);
  EXPECT_EQ(transaction->dictionaryRepresentation(), full);
  const auto encodedForm = transaction->encoded2TransactionDictionary();
  EXPECT_EQ(encodedForm.size(), 10U);
  EXPECT_EQ(*encodedForm.find(encoded("sk.Quantity")), encoded("2"));
  EXPECT_EQ(*encodedForm.find(encoded("sk.Receipt")), encoded(std::string("\0\xFFr", 3)));

  transaction->setTransactionState("Success");
  EXPECT_FALSE(transaction->dictionaryRepresentation().contains("sk.TransactionState"));
  const auto archive = transaction->archive();
  EXPECT_TRUE(archive.root.dictionary()->contains("quanity"));
  const auto restored =
      SkeldaTransaction::fromArchive(platform::unarchivedObject(archivedData(archive)));
  ASSERT_NE(restored, nullptr);
  EXPECT_EQ(restored->storeId(), std::nullopt) << "archives do without it";
  EXPECT_EQ(restored->transactionState(), "Success");
  transaction->setStoreId(std::nullopt);
  EXPECT_EQ(restored->dictionaryRepresentation(), transaction->dictionaryRepresentation());
  EXPECT_EQ(SkeldaTransaction::fromArchive({"Other", archive.root}), nullptr);
  EXPECT_EQ(SkeldaTransaction::fromArchive({archive.className, platform::Dictionary{{"price", 1}}}),
            nullptr);
}

TEST(SkeldaTransaction, TakesFromAHostWhatAHostMaySay) {
  const auto transaction =
      SkeldaTransaction::transactionUsingUserDictionary({{"sk.OriginalTransactionIdentifier", "o"},
                                                         {"sk.Price", 3.5},
                                                         {"sk.Receipt", "text"},
                                                         {"sk.store.id", "9"}});
  EXPECT_EQ(transaction->dictionaryRepresentation(),
            (platform::Dictionary{{"sk.Price", "3.5"}, {"sk.store.id", "1"}}));
}
