// The sources that carry what a host says of its user, and of the user's privacy choices.

#include <gmock/gmock.h>

#include <ctime>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserBirthdate.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamUserProperties.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaCCPASource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentCore.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserDemographicsSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserPropertiesSource.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Tests/Analytics/Streaming/Sources/SourceRig.h"
#include "Tests/Support/LogCapture.h"

namespace skelda::testing {
namespace {

using platform::Array;
using platform::Value;
using ::testing::ElementsAre;

TEST(UserPropertiesSource, SendsEachOperationUnderItsNumber) {
  SourceRig<SkeldaUserPropertiesSource> rig;
  rig->setUserProperties("p", Array{"a", "b"});
  rig->setUserPropertiesValue("p", Array{"c"});
  rig->addUserProperties("p", Array{"d"});
  rig->removeUserProperties("p", Array{"e"});
  rig->removeUserProperties("p");
  rig->flagUserProperties("p");
  std::vector<std::string> operations;
  for (const auto& message : rig.sent()) {
    const auto& record = dynamic_cast<const SkeldaStreamUserProperties&>(*message);
    EXPECT_EQ(record.propertyName(), "p");
    operations.push_back(std::to_string(record.callType()) +
                         Value(record.propertyValues().value()).description());
  }
  EXPECT_THAT(operations, ElementsAre("1[\"a\",\"b\"]", "1[\"c\"]", "2[\"d\"]", "3[\"e\"]", "4[]",
                                      "6[\"true\"]"));
}

TEST(UserPropertiesSource, RefusesBadNamesAndValuesInEveryOperationAndSaysWhy) {
  SkeldaUtil::setLogLevel(2);
  LogCapture log;
  SourceRig<SkeldaUserPropertiesSource> rig;
  const struct {
    Value name, values;
    std::string reason;
    bool nameIsGood;
  } cases[] = {
      {"", Array{}, "name[] due to invalid user property name", false},
      {nullptr, Array{}, "name[(null)] due to invalid user property name", false},
      {5, Array{}, "name[5] due to invalid user property name", false},
      {"\xc0\x80", Array{}, "its name is not UTF-8 text", false},
      {"p", nullptr, "name[p] due to invalid values array", true},
      {"p", "text", "name[p] due to invalid values array", true},
      {"p", Array{"a", 5, 6}, "invalid user property value = 5", true},
      {"p", Array{nullptr}, "invalid user property value = (null)", true},
      {"p", Array{"\xff"}, "a value is not UTF-8 text", true},
  };
  for (const auto& refused : cases) {
    log.take();
    rig->setUserProperties(refused.name, refused.values);
    rig->addUserProperties(refused.name, refused.values);
    rig->removeUserProperties(refused.name, refused.values);
    if (!refused.nameIsGood) {
      rig->removeUserProperties(refused.name);
      rig->flagUserProperties(refused.name);
    }
    EXPECT_TRUE(rig.sent().empty()) << refused.reason;
    EXPECT_EQ(log.count(refused.reason), refused.nameIsGood ? 3U : 5U) << refused.reason;
  }
  SkeldaUtil::setLogLevel(0);
}

TEST(UserDemographicsSource, SendsTheUserIdAndTakesItBack) {
  SourceRig<SkeldaUserDemographicsSource> rig;
  rig->setUserId(nullptr);  // there was none: no news
  rig->setUserId("bad \xff");
  rig->setUserId(std::string("a\0b", 3));
  rig->setUserId(42);
  EXPECT_EQ(rig->getUserId(), "42");
  rig->setUserId(nullptr);
  EXPECT_EQ(rig->getUserId(), std::nullopt);
  EXPECT_THAT(rig.texts(), ElementsAre(R"(146 {"sk.demo.userid":"a\u0000b"})",
                                       R"(146 {"sk.demo.userid":"42"})", "146 nothing"));
}

TEST(UserSources, CarryTextsOfAnySizeAndUserIdsOfAnyKind) {
  const std::string huge(1 << 20, 'h');
  SourceRig<SkeldaUserDemographicsSource> user;
  const std::pair<Value, std::string> ids[] = {
      {"", ""}, {huge, huge}, {Array{1, "a"}, "[1,\"a\"]"}, {{{"a", 1}}, "{\"a\":1}"}, {true, "1"}};
  for (const auto& [given, text] : ids) {
    user->setUserId(given);
    EXPECT_EQ(user->getUserId(), text);
  }
  user->setUserId(Array{"bad \xff"});
  EXPECT_EQ(user->getUserId(), "1");
  EXPECT_EQ(user.texts().at(1), "146 {\"sk.demo.userid\":\"" + huge + "\"}");

  SourceRig<SkeldaUserPropertiesSource> properties;
  Array values;
  for (int i = 0; i < 10000; ++i) values.push_back("");
  properties->setUserProperties(huge, values);
  properties->addUserProperties("p", Array{huge});
  EXPECT_EQ(properties.last<SkeldaStreamUserProperties>()->propertyValues(), Array{huge});
  const auto& first = dynamic_cast<const SkeldaStreamUserProperties&>(*properties.sent().at(0));
  EXPECT_EQ(first.propertyName(), huge);
  EXPECT_EQ(first.propertyValues(), values);
  EXPECT_TRUE(first.payload());
}

TEST(UserDemographicsSource, KnowsTwoGendersAndTurnsAnAgeIntoTheStartOfTheYearOfBirth) {
  SourceRig<SkeldaUserDemographicsSource> rig;
  EXPECT_EQ(rig->genderAsInt(), -1);
  for (const auto& [letter, number] : {std::pair{"m", 1}, {"f", 0}, {"M", -1}, {"", -1}}) {
    rig->setGenderAsString(letter);
    EXPECT_EQ(rig->genderAsInt(), number) << letter;
    EXPECT_EQ(rig.texts().back(), "0 {\"sk.demo.gender\":" + std::to_string(number) + "}");
  }
  for (const std::int32_t age : {0, -1, 151}) rig->setAgeInYears(age);
  EXPECT_EQ(rig->age(), 0);
  EXPECT_EQ(rig.sent().size(), 4U);
  for (const std::int32_t age : {1, 40, 150}) {
    rig->setAgeInYears(age);
    EXPECT_EQ(rig->age(), age);
    const auto birthdate = rig.last<SkeldaStreamUserBirthdate>()->birthdate().value();
    const auto seconds = static_cast<std::time_t>(birthdate.timeIntervalSince1970());
    std::tm calendar{};
    ::localtime_r(&seconds, &calendar);
    EXPECT_EQ(calendar.tm_yday + calendar.tm_hour, 0);
  }
  rig->setBirthdate(platform::Date(std::chrono::hours(24)));
  EXPECT_EQ(rig.texts().back(), R"(0 {"sk.demo.birthdate":86400000})");
}

TEST(CCPASource, SendsTheTwoRequests) {
  SourceRig<SkeldaCCPASource> rig;
  rig->startup();
  rig->setCCPAOptOut(true);
  rig->setCCPADelete();
  EXPECT_THAT(rig.texts(), ElementsAre(R"(174 {"sk.ccpa.optout":true})", "175 {}"));
}

class Observer : public ISkeldaConsentObserver {
 public:
  explicit Observer(std::shared_ptr<SkeldaConsentCore> core) : core_(std::move(core)) {}
  void consentUpdated() override {
    core_->getConsent();  // the lock is free: the call comes from outside it
    std::lock_guard lock(mutex_);
    threads_.push_back(std::this_thread::get_id());
    changed_.notify_all();
  }
  std::vector<std::thread::id> calls(std::size_t count) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, std::chrono::seconds(5), [&] { return threads_.size() >= count; });
    return threads_;
  }

 private:
  const std::shared_ptr<SkeldaConsentCore> core_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::thread::id> threads_;
};

TEST(ConsentCore, StoresAndAnnouncesEveryUpdateAndAnswersWhetherItIsEnough) {
  const auto core = std::make_shared<SkeldaConsentCore>();
  EXPECT_EQ(core->consentProvided(), SkeldaConsentCore::kNotProvided);
  const auto queue = platform::Queue::serial("consent");
  const auto early = std::make_shared<Observer>(core);
  core->registerObserver(early, queue);

  EXPECT_FALSE(core->updateUserConsent({true, {}}));
  EXPECT_EQ(core->consentProvided(), SkeldaConsentCore::kInGDPRScope);
  EXPECT_TRUE(core->updateUserConsent({true, {{"iab", "x"}}, true}));
  EXPECT_TRUE(core->getConsent().isLICNEnabled());
  EXPECT_EQ(core->getConsent().consentStrings().find("iab")->description(), "x");
  EXPECT_TRUE(core->updateUserConsent({false, {}}));
  EXPECT_EQ(core->consentProvided(), SkeldaConsentCore::kNotInGDPRScope);
  EXPECT_EQ(early->calls(3).size(), 3U);

  // One that comes late is told at once; one that is gone is forgotten.
  const auto late = std::make_shared<Observer>(core);
  core->registerObserver(late, nullptr);
  core->registerObserver(std::make_shared<Observer>(core), nullptr);
  ASSERT_EQ(late->calls(1).size(), 1U);
  EXPECT_NE(late->calls(1).front(), std::this_thread::get_id());

  // Updates may come from many threads, and none is lost.
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i) core->updateUserConsent(core->getConsent());
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(late->calls(201).size(), 201U);
}

TEST(ConsentSource, TurnsEachUpdateIntoAMessageThatHasNoFrameType) {
  SourceRig<SkeldaConsentSource> rig;
  const auto core = SkeldaConsentCore::sharedInstance();
  core->updateUserConsent({true, {{"iab", "x"}}});
  rig->startup();  // finds consent given before
  ASSERT_EQ(rig.recorder->messages(1).size(), 1U);
  core->updateUserConsent({true, {{"iab", "x"}}});
  ASSERT_EQ(rig.recorder->messages(2).size(), 2U);
  rig->setConsent({false, {}});
  const std::string given = R"(0 {"sk.consent.isGdprScope":true,"sk.consent.strings":{"iab":"x"}})";
  EXPECT_THAT(
      rig.texts(),
      ElementsAre(given, given, R"(0 {"sk.consent.isGdprScope":false,"sk.consent.strings":{}})"));
}

}  // namespace
}  // namespace skelda::testing
