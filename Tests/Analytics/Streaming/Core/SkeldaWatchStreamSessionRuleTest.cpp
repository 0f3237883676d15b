#include "Analytics/Streaming/Core/SkeldaWatchStreamSessionRule.h"

#include <gtest/gtest.h>

#include "Analytics/Streaming/Core/SkeldaStreamCorePolicy.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"
#include "Tests/Support/AgentHome.h"

namespace skelda::testing {
namespace {

using Rule = SkeldaWatchStreamSessionRule;

/// What comes out of a policy whose sessions have at most 5 events or 10 minutes, for the mandatory
/// app info (133) and events at these times.
std::string sent(Rule::ModuleLookup lookup, std::initializer_list<std::int64_t> events) {
  const auto policy = SkeldaStreamCorePolicy::streamPolicyWithFlushRules(
      {Rule::sessionRuleWithFlushTriggerMap({}, {128, 133}, 5, 10, std::move(lookup))});
  const auto next = readyBeforeRecorder(*policy);
  policy->streamMessage(plainMessage(133));
  for (const auto ms : events) policy->streamMessage(eventAt(ms));
  settle(*policy);
  return next->words();
}

TEST(SessionRule, LosesNoMessageOverModulesThatAreNotThere) {
  const AgentHome home;
  const auto throwing = [](std::string_view) -> platform::ObjectRef {
    platform::assertionFailure("id is missing!");
  };
  for (const Rule::ModuleLookup& lookup : {Rule::ModuleLookup(), Rule::ModuleLookup(throwing)}) {
    EXPECT_EQ(sent(lookup, {0, 600001, 600002, 600003, 600004, 600005}),
              "133 session@0 flush1 e0 session@0 session@0..600007 flush3 session@600001 "
              "propsStart flush1 e600001 session@600001 e600002 e600003 e600004 "
              "session@600001..600012 e600005 flush3");
  }
}

TEST(SessionRule, ArchivesTheEventThatFilledTheSession) {
  const AgentHome home;
  sent({}, {0, 1, 2, 3, 4});
  const auto archive = SkeldaUtil::safeUnarchiveObjectWithFile(
      home.storageFolder() + "/.skeldaCurrentWatchSessionId0_261.archive");
  ASSERT_TRUE(archive);
  EXPECT_EQ(wordFor(*SkeldaStreamSessionId::fromArchive(*archive)), "session@4");
}

}  // namespace
}  // namespace skelda::testing
