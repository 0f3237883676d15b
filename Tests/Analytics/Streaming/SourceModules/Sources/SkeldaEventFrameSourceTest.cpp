#include "Analytics/Streaming/SourceModules/Sources/SkeldaEventFrameSource.h"

#include <gmock/gmock.h>

#include "Tests/Analytics/Streaming/SourceModules/Sources/SourceRig.h"

namespace skelda::testing {
namespace {

using ::testing::ElementsAre;
const platform::Date kWhen(std::chrono::seconds(1700000000));

TEST(SkeldaEventFrameSource, SendsOneMessagePerCallInCallOrder) {
  SourceRig<SkeldaEventFrameSource> rig;
  const auto purchase = std::make_shared<SkeldaTransaction>();
  rig->recordEvent("plain", {{"lap", 3}}, false, kWhen);
  rig->recordEvent("timed", {}, true, kWhen);
  rig->recordEvent("bought", {}, true, purchase, kWhen);
  rig->endTimedEvent("bought", {{"a\0b", "c"}}, kWhen);
  rig->endTimedEvent("never started", {}, kWhen);
  std::vector<std::string> events;
  const auto firstId = dynamic_cast<const SkeldaStreamEvent&>(*rig.sent().front()).eventId();
  for (const auto& message : rig.sent()) {
    const auto& event = dynamic_cast<const SkeldaStreamEvent&>(*message);
    EXPECT_EQ(event.timestamp(), kWhen);
    // As the frame catalogue says: an end has an id of its own, and no duration.
    EXPECT_EQ(event.eventId(), firstId + events.size());
    EXPECT_EQ(event.duration(), 0);
    EXPECT_EQ(event.transaction() != nullptr, event.eventType() == "PURCHASE_EVENT");
    events.push_back(*event.eventName() + " " + *event.eventType() +
                     (event.timed() ? " timed" : "") + (event.starting() ? " start" : ""));
  }
  EXPECT_THAT(events,
              ElementsAre("cGxhaW4= CUSTOM_EVENT", "dGltZWQ= CUSTOM_EVENT timed start",
                          "Ym91Z2h0 PURCHASE_EVENT timed start", "Ym91Z2h0 CUSTOM_EVENT timed",
                          "bmV2ZXIgc3RhcnRlZA== CUSTOM_EVENT timed"));
}

}  // namespace
}  // namespace skelda::testing
