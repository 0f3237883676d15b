#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"

#include <gtest/gtest.h>

#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"

using namespace skelda::testing;

namespace {

const auto kReader = SkeldaStreamFrameDeserializer::streamFrameDeserializer();

std::string headerAnnouncing(std::uint32_t length, int version) {
  std::string header = frameBytes(version, 134, "");
  for (unsigned i = 0; i < 4; ++i) header[20 + i] = static_cast<char>(length >> (8 * i));
  return header;
}

}  // namespace

TEST(SkeldaStreamFrameDeserializer, TellsAWholeFrameAndTheLengthThatItAnnounces) {
  struct Case {
    std::string bytes;
    bool isWhole;
    std::uint32_t length;
  };
  const Case cases[] = {
      {"", false, 0},
      {std::string(23, '\1'), false, 0},
      {frameBytes(1, 134, "{}"), true, 26},
      {frameBytes(1, 134, "{}") + "more", true, 26},
      {frameBytes(1, 134, ""), true, 24},
      {frameBytes(0, 134, "{}") + "123", false, 30},
      {frameBytes(0, 134, "{}") + "1234", true, 30},
      {frameBytes(0x80, 134, "{}"), false, 30},
      {headerAnnouncing(100, 1) + std::string(50, ' '), false, 124},
      {headerAnnouncing(100, 0) + std::string(50, ' '), false, 128},
      // Lengths that would wrap around into small ones.
      {headerAnnouncing(0xFFFFFFFF, 1) + std::string(50, ' '), false, 0xFFFFFFFF},
      {headerAnnouncing(0xFFFFFFFF - 24, 1) + std::string(50, ' '), false, 0xFFFFFFFF},
      {headerAnnouncing(0xFFFFFFFF - 26, 0) + std::string(50, ' '), false, 0xFFFFFFFF},
  };
  for (const Case& tried : cases) {
    std::uint32_t length = 99;
    EXPECT_EQ(kReader->isAtLeastOneFrameInData(tried.bytes, &length), tried.isWhole);
    EXPECT_EQ(kReader->isAtLeastOneFrameInData(tried.bytes), tried.isWhole);
    EXPECT_EQ(length, tried.length) << tried.bytes.size() << " bytes";
  }
}

TEST(SkeldaStreamFrameDeserializer, DecodesEveryFieldAndLeavesTheCrcUnchecked) {
  std::size_t consumed = 0;
  platform::ErrorRef error;
  const std::string bytes =
      frameBytes(0, 0xFEDC86, "payload", -1, -2) + "\x01\x02\x03\x84" + "rest";
  const auto frame = kReader->streamFrameFromData(bytes, &consumed, &error);
  EXPECT_EQ(frame->frameVersion(), 0);
  EXPECT_EQ(frame->frameType(), 0xFEDC86);
  EXPECT_EQ(frame->epochTimeStamp(), -1);
  EXPECT_EQ(frame->relativeTimeStamp(), -2);
  EXPECT_EQ(frame->payload().string(), "payload");
  EXPECT_EQ(static_cast<std::uint32_t>(frame->crc32()), 0x84030201U);
  EXPECT_EQ(frame->totalLength(), 35U);
  EXPECT_EQ(consumed, 35U);
  EXPECT_EQ(error, nullptr);
  EXPECT_EQ(frame->frameClass(), std::nullopt);

  // The byte-order flag is nobody's version, and the type has three bytes whatever stands behind.
  const auto flagged = kReader->streamFrameFromData(frameBytes(0x81, 134, "\xFF", 0xAB));
  EXPECT_EQ(flagged->frameVersion(), 1);
  EXPECT_EQ(flagged->frameType(), 134);
  EXPECT_EQ(flagged->crc32(), 0);
  EXPECT_EQ(flagged->frameClass(), "SkeldaStreamEvent");
  EXPECT_EQ(flagged->payloadString(), std::nullopt);
  EXPECT_EQ(kReader->frameTypeFromData(frameBytes(0x81, 134, "")), 134U);
}
