
#include <gtest/gtest.h>

#include "Analytics/Streaming/Core/SkeldaSessionLimit.h"
#include "Analytics/Streaming/Core/SkeldaWatchStreamEventDropRule.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEventSummary.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"

namespace skelda::testing {
namespace {

static_assert(sessionLimitInMilliseconds(10) == 600000);
static_assert(sessionLimitInMilliseconds(35791) == 2147460000);
static_assert(sessionLimitInMilliseconds(35792) == -2147447296, "wraps around");

TEST(EventDropRule, KeepsAndCountsTheEventsOfASession) {
  const struct {
    std::int32_t threshold;
    std::int32_t minutes;
    std::vector<std::int64_t> events;  // By time; the time is the id.
    const char* kept;
    std::uint32_t count;
  } cases[] = {
      {3, 10, {}, "", 0},
      {3, 10, {1, 2, 3, 4, 5}, "e1 e2 e3", 5},
      {3, 10, {1, 1, 2, 3}, "e1 e2", 4},                    // A repeat counts as one more.
      {9, 10, {1, 600001, 600002, 3}, "e1 e600001 e3", 4},  // At the limit and behind it.
      {9, 10, {600001, 1, 600002}, "e600001 e1", 3},        // An earlier one moves the start,
      {1, 10, {600001, 1, 600002}, "e600001", 3},           // even one that is dropped.
      {9, 35792, {5, 6, 5}, "e5", 3},                       // A limit that wrapped around.
  };
  for (const auto& [threshold, minutes, events, kept, count] : cases) {
    SCOPED_TRACE(kept);
    const auto rule =
        SkeldaWatchStreamEventDropRule::eventDropRuleWithMaxEventThreshold(threshold, minutes);
    std::string words;
    for (const auto ms : events) {
      if (!rule->shouldDropMessage(eventAt(ms))) addWord(words, "e" + std::to_string(ms));
    }
    EXPECT_EQ(words, kept);
    EXPECT_FALSE(rule->shouldDropMessage(plainMessage(148)));

    EXPECT_TRUE(rule->prependMessagesBefore(SkeldaStreamFlush::streamFlushWithStatus(1)).empty());
    const auto before = rule->prependMessagesBefore(SkeldaStreamFlush::streamFlushWithStatus(3));
    ASSERT_EQ(before.size(), 1U);
    const auto summary = std::dynamic_pointer_cast<SkeldaStreamEventSummary>(before[0]);
    ASSERT_NE(summary, nullptr);
    EXPECT_EQ(summary->eventCount(), count);
    EXPECT_EQ(summary->setComplete(), rule->droppedEventsSet().empty());

    rule->reset();
    EXPECT_EQ(rule->getEventCount(), 0U);
    EXPECT_EQ(rule->initialTimeStamp(), platform::Date::distantFuture());
  }
}

}  // namespace
}  // namespace skelda::testing
