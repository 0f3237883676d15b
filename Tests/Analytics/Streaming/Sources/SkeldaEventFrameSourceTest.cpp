#include "Analytics/Streaming/SourceModules/Sources/SkeldaEventFrameSource.h"

#include <gmock/gmock.h>

#include "Analytics/Utils/SkeldaUtil.h"
#include "Tests/Analytics/Streaming/Sources/SourceRig.h"
#include "Tests/Support/LogCapture.h"

namespace skelda::testing {
namespace {

using platform::Value;
using ::testing::HasSubstr;
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
      {"Lap",
       {{"nested", platform::Array{Value{{"deep", badText}}}}},
       "its parameters are not UTF-8 text"},
  };
  for (const auto& refused : cases) {
    log_.take();
    rig_.source->recordEvent(refused.name, refused.parameters, false, kWhen);
    EXPECT_TRUE(rig_.sent().empty()) << refused.reason;
    EXPECT_EQ(log_.count(refused.reason), 1U) << refused.reason;
    rig_.source->endTimedEvent(refused.name, refused.parameters, kWhen);
    EXPECT_TRUE(rig_.sent().empty()) << refused.reason;
    for (const auto& line : log_.take()) EXPECT_EQ(line.find(badText), std::string::npos);
  }
}

TEST_F(SkeldaEventFrameSourceTest, SendsOneMessagePerCallInCallOrder) {
  const auto purchase = std::make_shared<SkeldaTransaction>();
  rig_.source->recordEvent("plain", {{"lap", 3}}, false, kWhen);
  rig_.source->recordEvent("timed", {}, true, kWhen);
  rig_.source->recordEvent("bought", {}, true, purchase, kWhen);
  rig_.source->endTimedEvent("bought", {{"a\0b", "c"}}, kWhen);
  rig_.source->endTimedEvent("never started", {}, kWhen);
  const struct {
    std::string encodedName, type;
    bool timed, starting;
  } expected[] = {{"cGxhaW4=", "CUSTOM_EVENT", false, false},
                  {"dGltZWQ=", "CUSTOM_EVENT", true, true},
                  {"Ym91Z2h0", "PURCHASE_EVENT", true, true},
                  {"Ym91Z2h0", "CUSTOM_EVENT", true, false},
                  {"bmV2ZXIgc3RhcnRlZA==", "CUSTOM_EVENT", true, false}};
  const auto sent = rig_.sent();
  ASSERT_EQ(sent.size(), std::size(expected));
  for (std::size_t i = 0; i < sent.size(); ++i) {
    const auto event = std::dynamic_pointer_cast<SkeldaStreamEvent>(sent[i]);
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->eventName(), expected[i].encodedName);
    EXPECT_EQ(event->eventType(), expected[i].type);
    EXPECT_EQ(event->timed(), expected[i].timed) << i;
    EXPECT_EQ(event->starting(), expected[i].starting) << i;
    EXPECT_EQ(event->timestamp(), kWhen);
    EXPECT_EQ(event->transaction() != nullptr, i == 2);
  }
  EXPECT_EQ(log_.count("Recording Event eventName[cGxhaW4=] with parameters["), 1U);
  EXPECT_EQ(log_.count("ending timed event eventName[never started] with parameters[(null)]"), 1U);
}

}  // namespace
}  // namespace skelda::testing
