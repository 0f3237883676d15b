// The sources that carry what a host says of its user, and of the user's privacy choices.

#include <gmock/gmock.h>

#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentCore.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaConsentSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserDemographicsSource.h"
#include "Analytics/Streaming/SourceModules/Sources/SkeldaUserPropertiesSource.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Tests/Analytics/Streaming/SourceModules/Sources/SourceRig.h"
#include "Tests/Analytics/Threads.h"
#include "Tests/Support/LogCapture.h"
#include "Tests/Support/Recorded.h"

namespace skelda::testing {
namespace {

using platform::Array;
using platform::Value;
using ::testing::ElementsAre;

TEST(UserPropertiesSource, RefusesBadNamesAndValuesInEveryOperationAndSaysWhy) {
  SkeldaUtil::setLogLevel(2);
  LogCapture log;
  SourceRig<SkeldaUserPropertiesSource> rig;
  const struct {
    Value name, values;
    std::string reason;
    bool nameIsGood;
  } cases[] = {
      {"", Array{}, "due to invalid user property name", false},
      {nullptr, Array{}, "due to invalid user property name", false},
      {5, Array{}, "due to invalid user property name", false},
      {"\xc0\x80", Array{}, "its name is not UTF-8 text", false},
      {"p", nullptr, "name[(not shown)] due to invalid values array", true},
      {"p", "text", "name[(not shown)] due to invalid values array", true},
      {"p", Array{"a", 5, 6}, "invalid user property value = (not shown)", true},
      {"p", Array{nullptr}, "invalid user property value = (not shown)", true},
      {"p", Array{"\xff"}, "a value is not UTF-8 text", true},
  };
  for (const auto& [name, values, reason, nameIsGood] : cases) {
    log.take();
    rig->setUserProperties(name, values);
    rig->addUserProperties(name, values);
    rig->removeUserProperties(name, values);
    if (!nameIsGood) {
      rig->removeUserProperties(name);
      rig->flagUserProperties(name);
    }
    EXPECT_TRUE(rig.sent().empty()) << reason;
    EXPECT_EQ(log.count(reason), nameIsGood ? 3U : 5U) << reason;
  }
  SkeldaUtil::setLogLevel(0);
}

TEST(UserDemographicsSource, CarriesUserIdsOfAnyKindAndSizeAndTakesThemBack) {
  const std::string huge(1 << 20, 'h');
  SourceRig<SkeldaUserDemographicsSource> rig;
  rig->setUserId(nullptr);  // there was none: no news
  rig->setUserId("bad \xff");
  const std::pair<Value, std::string> ids[] = {{std::string("a\0b", 3), std::string("a\0b", 3)},
                                               {huge, huge},
                                               {Array{1, "a"}, "[1,\"a\"]"},
                                               {true, "1"}};
  for (const auto& [given, text] : ids) {
    rig->setUserId(given);
    EXPECT_EQ(rig->getUserId(), text);
  }
  rig->setUserId(Array{"bad \xff"});
  EXPECT_EQ(rig->getUserId(), "1");
  rig->setUserId(nullptr);
  EXPECT_EQ(rig->getUserId(), std::nullopt);
  EXPECT_THAT(rig.texts(), ElementsAre(R"(146 {"sk.demo.userid":"a\u0000b"})",
                                       R"(146 {"sk.demo.userid":")" + huge + R"("})",
                                       R"(146 {"sk.demo.userid":"[1,\"a\"]"})",
                                       R"(146 {"sk.demo.userid":"1"})", "146 nothing"));
}

class Observer : public ISkeldaConsentObserver {
 public:
  explicit Observer(std::shared_ptr<SkeldaConsentCore> core) : core_(std::move(core)) {}
  void consentUpdated() override {
    core_->getConsent();  // the lock is free: the call comes from outside it
    threads.add(std::this_thread::get_id());
  }
  Recorded<std::thread::id> threads;

 private:
  const std::shared_ptr<SkeldaConsentCore> core_;
};

TEST(ConsentCore, AnnouncesEveryUpdateOutsideItsLockAndAnswersWhetherItIsEnough) {
  const auto core = std::make_shared<SkeldaConsentCore>();
  EXPECT_EQ(core->consentProvided(), SkeldaConsentCore::kNotProvided);
  const auto early = std::make_shared<Observer>(core);
  core->registerObserver(early, platform::Queue::serial("consent"));
  EXPECT_FALSE(core->updateUserConsent({true, {}}));
  EXPECT_EQ(core->consentProvided(), SkeldaConsentCore::kInGDPRScope);
  EXPECT_TRUE(core->updateUserConsent({true, {{"iab", "x"}}, true}));
  EXPECT_TRUE(core->updateUserConsent({false, {}}));
  EXPECT_EQ(core->consentProvided(), SkeldaConsentCore::kNotInGDPRScope);
  EXPECT_EQ(early->threads.wait(3).size(), 3U);

  // One that comes late is told at once; one that is gone is forgotten.
  const auto late = std::make_shared<Observer>(core);
  core->registerObserver(late, nullptr);
  core->registerObserver(std::make_shared<Observer>(core), nullptr);
  ASSERT_EQ(late->threads.wait(1).size(), 1U);
  EXPECT_NE(late->threads.wait(1).front(), std::this_thread::get_id());

  // Updates may come from many threads, and none is lost.
  inThreads(4, [&](unsigned) {
    for (int i = 0; i < 50; ++i) core->updateUserConsent(core->getConsent());
  });
  EXPECT_EQ(late->threads.wait(201).size(), 201U);
}

TEST(ConsentSource, SendsWhatWasGivenBeforeItsStartAndEachChange) {
  SourceRig<SkeldaConsentSource> consent;
  SkeldaConsentCore::sharedInstance()->updateUserConsent({true, {{"iab", "x"}}});
  consent->startup();
  EXPECT_EQ(consent.recorder->messages(1).size(), 1U);
  SkeldaConsentCore::sharedInstance()->updateUserConsent({false, {}});
  EXPECT_EQ(consent.recorder->messages(2).size(), 2U);
  EXPECT_THAT(consent.texts(),
              ElementsAre(R"(0 {"sk.consent.isGdprScope":true,"sk.consent.strings":{"iab":"x"}})",
                          R"(0 {"sk.consent.isGdprScope":false,"sk.consent.strings":{}})"));
}

}  // namespace
}  // namespace skelda::testing
