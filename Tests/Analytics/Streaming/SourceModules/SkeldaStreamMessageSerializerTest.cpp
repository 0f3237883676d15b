#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"

#include <gtest/gtest.h>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamCCPADelete.h"
#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamFlush.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrame.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameTypeUtil.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Tests/Analytics/Streaming/SourceModules/FrameSamples.h"

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

TEST(SkeldaStreamMessageSerializer, LaysAFrameOutByteForByte) {
  using namespace std::string_literals;
  const std::string expected =
      "\x01\x86\x00\x00"
      "\x00\x80\x6E\x87\x74\x01\x00\x00"
      "\x88\x13\x00\x00\x00\x00\x00\x00"
      "\x02\x00\x00\x00{}"s;
  EXPECT_EQ(frameOf(message(1, 134, "{}")), expected);
  EXPECT_EQ(frameOf(message(1, 134, "{}")), frameBytes(1, 134, "{}"));
}

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
  const SkeldaStreamFlush invalid(2);
  EXPECT_FALSE(SkeldaStreamMessageSerializer::isValidStreamMessage(invalid));
  EXPECT_EQ(frameOf(invalid), std::nullopt);
  EXPECT_TRUE(SkeldaStreamMessageSerializer::isValidStreamMessage(SkeldaStreamCCPADelete()));
}

TEST(SkeldaStreamMessageSerializer, WritesAnEntityAsItWritesAMessageThatCarriesItsPayload) {
  for (const EntitySample& sample : entitySamples()) {
    if (sample.frameType == 0) {
      EXPECT_EQ(frameOf(*sample.entity), std::nullopt) << sample.entity->className();
      continue;
    }
    const auto carrier = SkeldaStreamMessage::streamMessageFromFrame(*sample.entity);
    EXPECT_EQ(frameOf(*carrier),
              frameBytes(1, static_cast<std::uint32_t>(sample.frameType), sample.payload,
                         sample.entity->epochTimeStamp(), sample.entity->relativeTimeStamp()));
    EXPECT_EQ(frameOf(*sample.entity), frameOf(*carrier));
  }
}

TEST(SkeldaStreamFrameTypeUtil, TiesEighteenTypesToTheirClassesBothWays) {
  const auto& types = SkeldaStreamFrameTypeUtil::allFrameTypes();
  EXPECT_EQ(types.size(), 18U);
  EXPECT_EQ(SkeldaStreamFrameTypeUtil::classToFrameType().size(), 18U);
  EXPECT_EQ(SkeldaStreamFrameTypeUtil::frameTypeToModelClass().at(175), "SkeldaStreamCCPADelete");
  for (const EntitySample& sample : entitySamples()) {
    EXPECT_EQ(sample.entity->frameType(), sample.frameType) << sample.entity->className();
    if (sample.frameType == 0) continue;
    const auto name = SkeldaStreamFrameTypeUtil::frameTypeToModelClass().at(sample.frameType);
    EXPECT_EQ(name, sample.entity->className());
    EXPECT_EQ(SkeldaStreamFrameTypeUtil::classToFrameType().find(name)->second, sample.frameType);
  }
  for (const std::int32_t unknown : {0, 3, 129, 176}) EXPECT_FALSE(types.contains(unknown));
}

TEST(SkeldaStreamMessage, DescribesItselfWithoutALastBracket) {
  const SkeldaStreamMessage carrier = message(1, 174, R"({"sk.ccpa.optout":true})");
  const std::string text = carrier.description();
  EXPECT_TRUE(text.starts_with("[SkeldaStreamMessage(0x")) << text;
  EXPECT_TRUE(
      text.ends_with("): type = [174], typeClass = [SkeldaStreamCCPAOptOut], version = [1], "
                     "EpochTimeStamp = [1600000000000], RelativeTimeStamp = [5000], "
                     "payload len = [23] payload = {\"sk.ccpa.optout\":true}"))
      << text;
  EXPECT_TRUE(
      message(1, 9, "\xFF")
          .description()
          .ends_with("typeClass = [(null)], version = [1], EpochTimeStamp = [1600000000000], "
                     "RelativeTimeStamp = [5000], payload len = [1] payload = (null)"));
}
