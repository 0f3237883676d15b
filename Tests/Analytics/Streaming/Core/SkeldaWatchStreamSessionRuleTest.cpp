#include "Analytics/Streaming/Core/SkeldaWatchStreamSessionRule.h"

#include <gtest/gtest.h>

#include <sstream>

#include "Analytics/Streaming/Core/SkeldaStreamCorePolicy.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"
#include "Tests/Support/AgentHome.h"

namespace skelda::testing {
namespace {

using Rule = SkeldaWatchStreamSessionRule;

/// Sessions of at most 5 events or 10 minutes; mandatory are the session id and the app info (133).
class SessionRule : public ::testing::Test {
 protected:
  void useRule(Rule::ModuleLookup lookup) {
    rule_ = Rule::sessionRuleWithFlushTriggerMap({{148, 5}, {149, "5"}}, {128, 133}, 5, 10,
                                                 std::move(lookup));
  }
  /// Sends what the words say ("e5": an event at 5 ms, else a frame type) through a policy with the
  /// rule and answers what comes out.
  std::string send(const std::string& words) {
    const auto policy = SkeldaStreamCorePolicy::streamPolicyWithFlushRules({rule_});
    const auto next = readyBeforeRecorder(*policy);
    std::istringstream in(words);
    for (std::string word; in >> word;) {
      policy->streamMessage(word[0] == 'e' ? Message(eventAt(std::stoll(word.substr(1))))
                                           : Message(plainMessage(std::stoi(word))));
    }
    settle(*policy);
    return next->words();
  }

  AgentHome home_;
  std::shared_ptr<Rule> rule_;
};

TEST_F(SessionRule, FlushesForATriggerThatIsANumberOnceTheSetIsComplete) {
  useRule({});
  EXPECT_EQ(send("148 133 e0 148 149"), "148 133 session@0 flush1 e0 session@0 148 flush5 149");
}

TEST_F(SessionRule, LosesNoMessageOverModulesThatAreNotThere) {
  const auto throwing = [](std::string_view) -> platform::ObjectRef {
    platform::assertionFailure("id is missing!");
  };
  for (const Rule::ModuleLookup& lookup : {Rule::ModuleLookup(), Rule::ModuleLookup(throwing)}) {
    useRule(lookup);
    EXPECT_EQ(send("133 e0 e600001 e600002 e600003 e600004 e600005"),
              "133 session@0 flush1 e0 session@0 session@0..600007 flush3 session@600001 "
              "propsStart flush1 e600001 session@600001 e600002 e600003 e600004 "
              "session@600001..600012 e600005 flush3");
  }
}

TEST_F(SessionRule, ArchivesTheEventThatFilledTheSession) {
  useRule({});
  send("133 e0 e1 e2 e3 e4");
  const auto archive =
      SkeldaUtil::safeUnarchiveObjectWithFile(Rule::currentWatchSessionIdFilePath());
  ASSERT_TRUE(archive);
  EXPECT_EQ(wordFor(*SkeldaStreamSessionId::fromArchive(*archive)), "session@4");
  EXPECT_EQ(Rule::currentWatchSessionIdFilePath(),
            home_.storageFolder() + "/.skeldaCurrentWatchSessionId0_261.archive");
}

}  // namespace
}  // namespace skelda::testing
