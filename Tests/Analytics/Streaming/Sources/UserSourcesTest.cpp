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
  rig.source->setUserProperties("p", Array{"a", "b"});
  rig.source->setUserPropertiesValue("p", Array{"c"});
  rig.source->addUserProperties("p", Array{"d"});
  rig.source->removeUserProperties("p", Array{"e"});
  rig.source->removeUserProperties("p");
  rig.source->flagUserProperties("p");
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
    rig.source->setUserProperties(refused.name, refused.values);
    rig.source->addUserProperties(refused.name, refused.values);
    rig.source->removeUserProperties(refused.name, refused.values);
    if (!refused.nameIsGood) {
      rig.source->removeUserProperties(refused.name);
      rig.source->flagUserProperties(refused.name);
    }
    EXPECT_TRUE(rig.sent().empty()) << refused.reason;
    EXPECT_EQ(log.count(refused.reason), refused.nameIsGood ? 3U : 5U) << refused.reason;
  }
  SkeldaUtil::setLogLevel(0);
}

TEST(UserDemographicsSource, SendsTheUserIdAndTakesItBack) {
  SourceRig<SkeldaUserDemographicsSource> rig;
  rig.source->setUserId(nullptr);  // there was none: no news
  rig.source->setUserId("bad \xff");
  rig.source->setUserId(std::string("a\0b", 3));
  rig.source->setUserId(42);
  EXPECT_EQ(rig.source->getUserId(), "42");
  rig.source->setUserId(nullptr);
  EXPECT_EQ(rig.source->getUserId(), std::nullopt);
  EXPECT_THAT(rig.sentTexts(), ElementsAre("146 {\"sk.demo.userid\":\"a\\u0000b\"}",
                                           "146 {\"sk.demo.userid\":\"42\"}", "146 nothing"));
}

TEST(UserDemographicsSource, KnowsTwoGendersByTheirExactLetter) {
  SourceRig<SkeldaUserDemographicsSource> rig;
  EXPECT_EQ(rig.source->genderAsInt(), -1);
  for (const auto& [letter, number] : {std::pair{"m", 1}, {"f", 0}, {"M", -1}, {"", -1}}) {
    rig.source->setGenderAsString(letter);
    EXPECT_EQ(rig.source->genderAsInt(), number) << letter;
    EXPECT_EQ(rig.sentTexts().back(), "0 {\"sk.demo.gender\":" + std::to_string(number) + "}");
  }
}

TEST(UserDemographicsSource, TurnsAnAgeIntoTheStartOfTheYearOfBirth) {
  SourceRig<SkeldaUserDemographicsSource> rig;
  for (const std::int32_t age : {0, -1, 151}) rig.source->setAgeInYears(age);
  EXPECT_TRUE(rig.sent().empty());
  EXPECT_EQ(rig.source->age(), 0);
  for (const std::int32_t age : {1, 40, 150}) {
    rig.source->setAgeInYears(age);
    EXPECT_EQ(rig.source->age(), age);
    const auto birthdate = rig.last<SkeldaStreamUserBirthdate>()->birthdate().value();
    const std::time_t seconds = static_cast<std::time_t>(birthdate.timeIntervalSince1970());
    std::tm calendar{};
    ::localtime_r(&seconds, &calendar);
    EXPECT_EQ(calendar.tm_yday, 0);
    EXPECT_EQ(calendar.tm_hour, 0);
  }
  const auto given = platform::Date::withTimeIntervalSince1970(86400);
  rig.source->setBirthdate(given);
  EXPECT_EQ(rig.last<SkeldaStreamUserBirthdate>()->birthdate(), given);
  EXPECT_EQ(rig.sent().size(), 4U);
}

TEST(CCPASource, SendsTheTwoRequests) {
  SourceRig<SkeldaCCPASource> rig;
  rig.source->startup();
  rig.source->setCCPAOptOut(true);
  rig.source->setCCPADelete();
  rig.source->setCCPAOptOut(false);
  EXPECT_THAT(rig.sentTexts(), ElementsAre("174 {\"sk.ccpa.optout\":true}", "175 {}",
                                           "174 {\"sk.ccpa.optout\":false}"));
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
  core->updateUserConsent({false, {}});
  EXPECT_EQ(late->calls(2).size(), 2U);
}

TEST(ConsentCore, IsSafeFromManyThreads) {
  const auto core = std::make_shared<SkeldaConsentCore>();
  const auto observer = std::make_shared<Observer>(core);
  core->registerObserver(observer, nullptr);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&] {
      for (int i = 0; i < 50; ++i)
        core->updateUserConsent({i % 2 == 0, core->getConsent().consentStrings()});
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(observer->calls(200).size(), 200U);
}

TEST(ConsentSource, TurnsEachUpdateIntoAMessageThatHasNoFrameType) {
  SourceRig<SkeldaConsentSource> rig;
  const auto core = SkeldaConsentCore::sharedInstance();
  core->updateUserConsent({true, {{"iab", "x"}}});
  rig.source->startup();  // finds consent given before
  ASSERT_EQ(rig.recorder->messages(1).size(), 1U);
  core->updateUserConsent({true, {{"iab", "x"}}});
  ASSERT_EQ(rig.recorder->messages(2).size(), 2U);
  rig.source->setConsent({false, {}});
  const auto texts = rig.sentTexts();
  EXPECT_EQ(texts[0], texts[1]);
  EXPECT_THAT(
      std::vector(texts.begin() + 1, texts.end()),
      ElementsAre("0 {\"sk.consent.isGdprScope\":true,\"sk.consent.strings\":{\"iab\":\"x\"}}",
                  "0 {\"sk.consent.isGdprScope\":false,\"sk.consent.strings\":{}}"));
}

}  // namespace
}  // namespace skelda::testing
