#include <gtest/gtest.h>

#include <thread>

#include "Analytics/Streaming/Core/SkeldaStreamCoreBuffer.h"
#include "Tests/Analytics/Streaming/Core/RecordingStage.h"

namespace skelda::testing {
namespace {

class PlainStage : public SkeldaActorStreamComponentBase {
 public:
  PlainStage() : SkeldaActorStreamComponentBase("PlainStage") {}
};
class CoreStage : public SkeldaActorStreamCoreComponent {
 public:
  CoreStage() : SkeldaActorStreamCoreComponent("CoreStage") {}
  void nextStageDidChangeState(std::int32_t state) override { becomeReadyWithNextStage(state); }
};

TEST(StreamComponent, ForwardsByFrameTypeInOrderOfRegistration) {
  const auto stage = SkeldaActor::made(new PlainStage());
  const auto events = std::make_shared<RecordingStage>();
  const auto all = std::make_shared<RecordingStage>();
  const auto none = std::make_shared<RecordingStage>();
  events->types = {SkeldaStreamFrameTypeUtil::kEvent};
  none->types = std::nullopt;
  stage->registerNextStageComponent(events);
  stage->registerNextStageComponent(all);
  stage->registerNextStageComponent(events);
  stage->registerNextStageComponent(none);
  stage->registerNextStageComponent(nullptr);
  for (const int type : {134, 148, 9999, 134}) stage->streamMessage(plainMessage(type));
  stage->streamMessage(nullptr);
  settle(*stage);
  EXPECT_EQ(events->words(), "134 134 134 134") << "registered twice, delivered twice";
  EXPECT_EQ(all->words(), "134 148 134");
  EXPECT_EQ(none->words(), "");
  const auto map = stage->frameTypeToNextStageComponentsMap();
  EXPECT_EQ(map.size(), SkeldaStreamFrameTypeUtil::kTable.size());
  EXPECT_EQ(*map.find(134), (SkeldaNextStageMap::Stages{events, all, events}));
  EXPECT_EQ(map.find(9999), nullptr);
}

TEST(StreamCoreComponent, HoldsUntilReadyThenReleasesInOrder) {
  for (const bool started : {false, true}) {
    const auto stage = SkeldaActor::made(new CoreStage());
    const auto next = std::make_shared<RecordingStage>();
    const auto previous = std::make_shared<RecordingStage>();
    stage->registerNextStageComponent(next);
    stage->registerPreviousStageComponent(previous);
    EXPECT_EQ(stage->moduleState(), 1);
    if (started) stage->startup();
    EXPECT_EQ(stage->moduleState(), started ? 2 : 1);

    for (const int ms : {1, 2, 3}) stage->streamMessage(eventAt(ms));
    settle(*stage);
    stage->nextStageDidChangeState(2);
    settle(*stage);
    EXPECT_EQ(next->words(), "");
    EXPECT_EQ(stage->deferredMessageQueue().size(), 3U);

    stage->nextStageDidChangeState(3);
    stage->streamMessage(eventAt(4));
    settle(*stage);
    EXPECT_EQ(next->words(), "e1 e2 e3 e4");
    stage->updateState(3);
    stage->updateState(1);
    stage->streamMessage(eventAt(5));
    settle(*stage);
    EXPECT_EQ(next->words(), "e1 e2 e3 e4 e1 e2 e3") << "what was held goes out again";
    EXPECT_EQ(previous->states(), (std::vector<std::int32_t>{3, 3, 1}));
  }
}

TEST(StreamCoreBuffer, KeepsTheOrderOfEachSourceThroughPausesAndUntilTheNextStageIsReady) {
  constexpr std::uint32_t kSources = 4;
  constexpr std::uint32_t kMessages = 200;
  const auto buffer = SkeldaStreamCoreBuffer::streamBuffer();
  const auto next = std::make_shared<RecordingStage>();
  buffer->registerNextStageComponent(next);
  buffer->pause();
  std::vector<std::thread> sources;
  for (std::uint32_t source = 0; source < kSources; ++source) {
    sources.emplace_back([&buffer, source] {
      for (std::uint32_t i = 0; i < kMessages; ++i) {
        buffer->streamMessage(eventAt(source * kMessages + i));
      }
    });
  }
  buffer->nextStageDidChangeState(3);
  settle(*buffer);
  EXPECT_EQ(next->words(), "") << "ready, but paused";
  for (int i = 0; i < 20; ++i) {
    buffer->resume();
    buffer->pause();
  }
  for (auto& source : sources) source.join();
  buffer->resume();

  std::vector<std::uint32_t> seen(kSources, 0);
  for (const auto& message : next->messages(kSources * kMessages)) {
    const auto id = std::dynamic_pointer_cast<SkeldaStreamEvent>(message)->eventId();
    EXPECT_EQ(id % kMessages, seen[id / kMessages]++);
  }
  EXPECT_EQ(seen, std::vector<std::uint32_t>(kSources, kMessages));
}

}  // namespace
}  // namespace skelda::testing
