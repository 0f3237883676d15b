#include "Analytics/Streaming/Core/SkeldaStreamCoreStickyMessagesHandler.h"

#include <gtest/gtest.h>

#include "Tests/Analytics/Streaming/Core/RecordingStage.h"

namespace skelda::testing {
namespace {

TEST(StickyMessagesHandler, ReplaysTheLatestOfEachTypeBehindEveryTrigger) {
  const auto handler = SkeldaStreamCoreStickyMessagesHandler::stickyMessagesHandlerWithStickySet(
      {148, 162, 149}, {1}, {149});
  const auto next = readyBeforeRecorder(*handler);
  const auto flush = SkeldaStreamFlush::streamFlushWithStatus(5);
  const auto later = plainMessage(148);
  handler->streamMessage(flush);
  for (const auto& message : {plainMessage(148), later, plainMessage(162), plainMessage(149),
                              plainMessage(149), plainMessage(134)}) {
    handler->streamMessage(message);
  }
  handler->streamMessage(nullptr);
  handler->streamMessage(flush);
  handler->streamMessage(flush);
  settle(*handler);
  EXPECT_EQ(next->words(),
            "flush5 148 148 162 149 149 134 flush5 148 162 149 149 flush5 148 162 149 149");
  EXPECT_EQ(next->messages()[8], later) << "the very object, in its later form";
  EXPECT_EQ(handler->stickyMessages().size(), 2U);
  EXPECT_EQ(handler->stickyMessageArrays().at(149).size(), 2U);
}

}  // namespace
}  // namespace skelda::testing
