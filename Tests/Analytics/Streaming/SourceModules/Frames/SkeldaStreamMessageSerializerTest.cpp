#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"

#include <gtest/gtest.h>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPADelete.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrame.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"
#include "Tests/Support/LogCapture.h"

using namespace skelda::testing;

namespace {

std::optional<std::string> frameOf(const ISkeldaStreamMessage& message) {
  const auto frame =
      SkeldaStreamMessageSerializer::streamMessageSerializer()->frameFromStreamMessage(message);
  return frame ? std::optional(frame->string()) : std::nullopt;
}

std::string lastFour(std::uint32_t number) {
  std::string bytes;
  for (unsigned i = 0; i < 4; ++i) bytes += static_cast<char>(number >> (8 * i));
  return bytes;
}

}  // namespace

TEST(SkeldaStreamMessageSerializer, GivesAFooterToTheWholeVersionZeroAlone) {
  ASSERT_EQ(static_cast<std::uint32_t>(SkeldaUtil::dataChecksum(std::string_view("123456789"))),
            0xCBF43926U);
  ASSERT_EQ(SkeldaUtil::dataChecksum(std::string_view()), 0);

  const std::string body = frameBytes(0, 134, "{}");
  const auto crc = static_cast<std::uint32_t>(SkeldaUtil::dataChecksum(std::string_view(body)));
  EXPECT_EQ(frameOf(message(0, 134, "{}")), body + lastFour(crc));
  // Four bits of the version fit into the frame; whether there is a footer goes by all of it.
  EXPECT_EQ(frameOf(message(16, 134, "{}")), body);
  EXPECT_EQ(frameOf(message(-1, 134, "{}")), frameBytes(15, 134, "{}"));
}

TEST(SkeldaStreamMessageSerializer, RefusesWhatHasNoPayloadOrNoKnownType) {
  for (const auto& refused : {message(1, 134, std::nullopt), message(1, 134, ""),
                              message(1, 0, "{}"), message(1, 3, "{}"), message(1, 129, "{}"),
                              message(1, 176, "{}"), message(1, 134 | 1 << 24, "{}")}) {
    EXPECT_FALSE(SkeldaStreamMessageSerializer::isValidStreamMessage(refused));
    EXPECT_EQ(frameOf(refused), std::nullopt) << refused.frameType();
  }
  // Four gibibytes, without making them.
  LogCapture log;
  SkeldaUtil::setLogLevel(1);
  EXPECT_TRUE(SkeldaStreamMessageSerializer::hasRoomForPayload(UINT32_MAX - 28, 134));
  EXPECT_EQ(log.count("too long"), 0U);
  EXPECT_FALSE(SkeldaStreamMessageSerializer::hasRoomForPayload(UINT32_MAX - 27, 134));
  SkeldaUtil::setLogLevel(0);
  EXPECT_EQ(log.count("a payload of 4294967268 bytes is too long for a frame of type 134"), 1U);
  const SkeldaStreamFlush invalid(2);
  EXPECT_FALSE(SkeldaStreamMessageSerializer::isValidStreamMessage(invalid));
  EXPECT_EQ(frameOf(invalid), std::nullopt);
  EXPECT_TRUE(SkeldaStreamMessageSerializer::isValidStreamMessage(SkeldaStreamCCPADelete()));
}

TEST(SkeldaStreamMessageSerializer, WritesAnEntityAsItWritesAMessageThatCarriesItsPayload) {
  for (const EntitySample& sample : entitySamples()) {
    EXPECT_EQ(sample.entity->frameType(), sample.frameType) << sample.entity->className();
    if (sample.frameType == 0) {
      EXPECT_EQ(frameOf(*sample.entity), std::nullopt) << sample.entity->className();
      continue;
    }
    EXPECT_EQ(SkeldaStreamFrameTypeUtil::frameTypeToModelClass().at(sample.frameType),
              sample.entity->className());
    const auto carrier = SkeldaStreamMessage::streamMessageFromFrame(*sample.entity);
    EXPECT_EQ(frameOf(*carrier),
              frameBytes(1, static_cast<std::uint32_t>(sample.frameType), sample.payload,
                         sample.entity->epochTimeStamp(), sample.entity->relativeTimeStamp()));
    EXPECT_EQ(frameOf(*sample.entity), frameOf(*carrier));
  }
}
