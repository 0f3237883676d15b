#include "Analytics/Streaming/Core/SkeldaSessionLimit.h"
#include "Analytics/Streaming/Core/SkeldaStreamCoreBuffer.h"
#include "Analytics/Streaming/Core/SkeldaStreamCorePolicy.h"
#include "Analytics/Streaming/Core/SkeldaWatchStreamEventDropRule.h"
#include "Analytics/Streaming/Core/SkeldaWatchStreamSessionRule.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEventSummary.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"
#include "Tests/Support/AgentHome.h"

namespace {

struct PlainStage : SkeldaActorStreamComponentBase {
  PlainStage() : SkeldaActorStreamComponentBase("PlainStage") {}
};
struct CoreStage : SkeldaActorStreamCoreComponent {
  CoreStage() : SkeldaActorStreamCoreComponent("CoreStage") {}
  void nextStageDidChangeState(std::int32_t state) override { becomeReadyWithNextStage(state); }
};

TEST(StreamComponent, ForwardsByFrameTypeInOrderOfRegistration) {
  const auto stage = SkeldaActor::made(new PlainStage());
  const auto events = std::make_shared<RecordingStage>(), all = std::make_shared<RecordingStage>(),
             none = std::make_shared<RecordingStage>();
  events->types = {SkeldaStreamFrameTypeUtil::kEvent};
  none->types = std::nullopt;
  for (const auto& next : {events, all, events, none, {}}) stage->registerNextStageComponent(next);
  for (const int type : {134, 148, 9999, 134}) stage->streamMessage(plainMessage(type));
  stage->streamMessage(nullptr);
  settle(*stage);
  EXPECT_EQ(events->words(), "134 134 134 134") << "registered twice, delivered twice";
  EXPECT_EQ(all->words(), "134 148 134");
  EXPECT_EQ(none->words(), "");
}

TEST(StreamCoreComponent, HoldsUntilReadyThenReleasesInOrderAndKeepsWhatItHeld) {
  for (const bool started : {false, true}) {
    const auto stage = SkeldaActor::made(new CoreStage());
    const auto next = std::make_shared<RecordingStage>();
    const auto previous = std::make_shared<RecordingStage>();
    stage->registerNextStageComponent(next);
    stage->registerPreviousStageComponent(previous);
    if (started) stage->startup();
    EXPECT_EQ(stage->moduleState(), started ? 2 : 1);
    for (const int ms : {1, 2, 3}) stage->streamMessage(eventAt(ms));
    stage->nextStageDidChangeState(2);
    settle(*stage);
    EXPECT_EQ(next->words(), "");
    stage->nextStageDidChangeState(3);
    stage->streamMessage(eventAt(4));
    settle(*stage);
    EXPECT_EQ(next->words(), "e1 e2 e3 e4");
    for (const int state : {3, 1}) stage->updateState(state);
    stage->streamMessage(eventAt(5));
    settle(*stage);
    EXPECT_EQ(next->words(), "e1 e2 e3 e4 e1 e2 e3") << "what was held goes out again";
    EXPECT_EQ(previous->states(), (std::vector<std::int32_t>{3, 3, 1}));
  }
}

TEST(StreamCoreBuffer, KeepsTheOrderOfEachSourceThroughPausesAndUntilTheNextStageIsReady) {
  constexpr std::uint32_t kSources = 4, kEach = 200;
  const auto buffer = SkeldaStreamCoreBuffer::streamBuffer();
  const auto next = std::make_shared<RecordingStage>();
  buffer->registerNextStageComponent(next);
  buffer->pause();
  std::thread sources([&buffer] {
    inThreads(kSources, [&buffer](unsigned source) {
      for (unsigned i = 0; i < kEach; ++i) buffer->streamMessage(eventAt(source * kEach + i));
    });
  });
  buffer->nextStageDidChangeState(3);
  settle(*buffer);
  EXPECT_EQ(next->words(), "") << "ready, but paused";
  for (int i = 0; i < 20; ++i) {
    buffer->resume();
    buffer->pause();
  }
  sources.join();
  buffer->resume();

  std::vector<std::uint32_t> seen(kSources, 0);
  for (const auto& message : next->messages(kSources * kEach)) {
    const auto id = std::dynamic_pointer_cast<SkeldaStreamEvent>(message)->eventId();
    EXPECT_EQ(id % kEach, seen[id / kEach]++);
  }
  EXPECT_EQ(seen, std::vector<std::uint32_t>(kSources, kEach));
}

static_assert(skelda::sessionLimitInMilliseconds(10) == 600000);
static_assert(skelda::sessionLimitInMilliseconds(35791) == 2147460000);
static_assert(skelda::sessionLimitInMilliseconds(35792) == -2147447296, "wraps around");

TEST(EventDropRule, KeepsAndCountsTheEventsOfASession) {
  // Events by time, which is their id; those that are kept; and what was counted.
  const std::tuple<int, int, std::vector<std::int64_t>, const char*, std::uint32_t> cases[] = {
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
    using Rule = SkeldaWatchStreamEventDropRule;
    const auto rule = Rule::eventDropRuleWithMaxEventThreshold(threshold, minutes);
    std::string words;
    for (const auto ms : events)
      if (!rule->shouldDropMessage(eventAt(ms))) addWord(words, "e" + std::to_string(ms));
    EXPECT_EQ(words, kept);
    EXPECT_FALSE(rule->shouldDropMessage(plainMessage(148)));

    EXPECT_TRUE(rule->prependMessagesBefore(SkeldaStreamFlush::streamFlushWithStatus(1)).empty());
    const auto before = rule->prependMessagesBefore(SkeldaStreamFlush::streamFlushWithStatus(3));
    ASSERT_EQ(before.size(), 1U);
    const auto& summary = dynamic_cast<const SkeldaStreamEventSummary&>(*before[0]);
    EXPECT_EQ(summary.eventCount(), count);
    EXPECT_EQ(summary.setComplete(), rule->droppedEventsSet().empty());

    rule->reset();
    EXPECT_EQ(rule->getEventCount(), 0U);
    EXPECT_EQ(rule->initialTimeStamp(), Date::distantFuture());
  }
}

struct SilentRule : ISkeldaStreamFlushRule {
  SkeldaStreamFlushResponse refreshFlushStatusForMessage(const ISkeldaStreamMessage::Ref&,
                                                         Messages&, Messages&) override {
    return {};
  }
};

// Sessions of at most 5 events or 10 minutes, with the app info (133) as their mandatory message.
TEST(SessionRule, LosesNoMessageOverModulesThatAreNotThere) {
  using Rule = SkeldaWatchStreamSessionRule;
  const AgentHome home;
  const auto throwing = [](std::string_view) -> ObjectRef { assertionFailure("id is missing!"); };
  for (const Rule::ModuleLookup& lookup : {Rule::ModuleLookup(), Rule::ModuleLookup(throwing)}) {
    const auto policy = SkeldaStreamCorePolicy::streamPolicyWithFlushRules(
        {Rule::sessionRuleWithFlushTriggerMap({}, {128, 133}, 5, 10, lookup),
         std::make_shared<SilentRule>()});
    const auto next = std::make_shared<RecordingStage>();
    policy->registerNextStageComponent(next);
    policy->updateState(ISkeldaStreamCoreComponent::kStateReady);
    policy->streamMessage(plainMessage(133));
    for (int ms : {0, 600001, 600002, 600003, 600004, 600005}) policy->streamMessage(eventAt(ms));
    settle(*policy);
    EXPECT_EQ(next->words(),
              "133 session@0 flush1 e0 session@0 session@0..600007 flush3 session@600001 "
              "propsStart flush1 e600001 session@600001 e600002 e600003 e600004 "
              "session@600001..600012 e600005 flush3");
  }
}

}  // namespace
