#include "Analytics/Streaming/SourceModules/Sources/SkeldaEventFrameSource.h"

#include <gmock/gmock.h>

#include "Analytics/Utils/SkeldaUtil.h"
#include "Tests/Analytics/Streaming/Sources/SourceRig.h"
#include "Tests/Support/LogCapture.h"

namespace skelda::testing {
namespace {

using platform::Value;
using ::testing::ElementsAre;
const platform::Date kWhen(std::chrono::seconds(1700000000));

class SkeldaEventFrameSourceTest : public ::testing::Test {
 protected:
  SkeldaEventFrameSourceTest() { SkeldaUtil::setLogLevel(1); }
  ~SkeldaEventFrameSourceTest() override { SkeldaUtil::setLogLevel(0); }
  LogCapture log_;
  SourceRig<SkeldaEventFrameSource> rig_;
};

TEST_F(SkeldaEventFrameSourceTest, RefusesWhatCannotBeAnEventAndSaysWhy) {
  const std::string badText = "caf\xe9";
  const struct {
    Value name, parameters;
    std::string reason;
  } cases[] = {
      {"", {}, "eventName[] due to invalid eventName"},
      {nullptr, {}, "eventName[(null)] due to invalid eventName"},
      {7, {}, "eventName[7] due to invalid eventName"},
      {badText, {}, "its eventName is not UTF-8 text"},
      {"Lap", platform::Array{1},
       "eventName[Lap] because parameters input is not of NSDictionary type"},
      {"Lap", "text", "parameters input is not of NSDictionary type"},
      {"Lap", {{"key", badText}}, "its parameters are not UTF-8 text"},
      {"Lap", {{badText, 1}}, "its parameters are not UTF-8 text"},
      {"Lap", {{"a", platform::Array{Value{{"b", badText}}}}}, "its parameters are not UTF-8 text"},
  };
  for (const auto& refused : cases) {
    log_.take();
    rig_->recordEvent(refused.name, refused.parameters, false, kWhen);
    EXPECT_TRUE(rig_.sent().empty()) << refused.reason;
    EXPECT_EQ(log_.count(refused.reason), 1U) << refused.reason;
    rig_->endTimedEvent(refused.name, refused.parameters, kWhen);
    EXPECT_TRUE(rig_.sent().empty()) << refused.reason;
    for (const auto& line : log_.take()) EXPECT_EQ(line.find(badText), std::string::npos);
  }
}

TEST_F(SkeldaEventFrameSourceTest, SendsOneMessagePerCallInCallOrder) {
  const auto purchase = std::make_shared<SkeldaTransaction>();
  rig_->recordEvent("plain", {{"lap", 3}}, false, kWhen);
  rig_->recordEvent("timed", {}, true, kWhen);
  rig_->recordEvent("bought", {}, true, purchase, kWhen);
  rig_->endTimedEvent("bought", {{"a\0b", "c"}}, kWhen);
  rig_->endTimedEvent("never started", {}, kWhen);
  std::vector<std::string> events;
  for (const auto& message : rig_.sent()) {
    const auto& event = dynamic_cast<const SkeldaStreamEvent&>(*message);
    EXPECT_EQ(event.timestamp(), kWhen);
    EXPECT_EQ(event.transaction() != nullptr, event.eventType() == "PURCHASE_EVENT");
    events.push_back(*event.eventName() + " " + *event.eventType() +
                     (event.timed() ? " timed" : "") + (event.starting() ? " start" : ""));
  }
  EXPECT_THAT(events,
              ElementsAre("cGxhaW4= CUSTOM_EVENT", "dGltZWQ= CUSTOM_EVENT timed start",
                          "Ym91Z2h0 PURCHASE_EVENT timed start", "Ym91Z2h0 CUSTOM_EVENT timed",
                          "bmV2ZXIgc3RhcnRlZA== CUSTOM_EVENT timed"));
  EXPECT_EQ(log_.count("Recording Event eventName[cGxhaW4=] with parameters["), 1U);
  EXPECT_EQ(log_.count("ending timed event eventName[never started] with parameters[(null)]"), 1U);
}

}  // namespace
}  // namespace skelda::testing
