#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameIterator.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Skelda_Watch/SkeldaConstants.h"
#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"

namespace {

std::optional<std::string> frameOf(const ISkeldaStreamMessage& message) {
  const auto frame = SkeldaStreamMessageSerializer().frameFromStreamMessage(message);
  return frame ? std::optional(frame->string()) : std::nullopt;
}

std::string fourBytes(std::uint32_t number) {
  std::string bytes;
  for (unsigned i = 0; i < 4; ++i) bytes += static_cast<char>(number >> (8 * i));
  return bytes;
}

TEST(SkeldaStreamMessageSerializer, GivesAFooterToTheWholeVersionZeroAlone) {
  const auto checksum = [](std::string_view of) {
    return static_cast<std::uint32_t>(SkeldaUtil::dataChecksum(of));
  };
  ASSERT_EQ(checksum("123456789"), 0xCBF43926U);
  ASSERT_EQ(checksum({}), 0U);

  const std::string body = frameBytes(0, 134, "{}");
  EXPECT_EQ(frameOf(message(0, 134, "{}")), body + fourBytes(checksum(body)));
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
  const auto classes = SkeldaStreamFrameTypeUtil::frameTypeToModelClass();
  for (const EntitySample& sample : entitySamples()) {
    const auto& entity = *sample.entity;
    EXPECT_EQ(frameOf(entity).has_value(), sample.frameType != 0) << entity.className();
    if (sample.frameType == 0) continue;
    EXPECT_EQ(classes.at(sample.frameType), entity.className());
    const auto carrier = SkeldaStreamMessage::streamMessageFromFrame(entity);
    EXPECT_EQ(frameOf(*carrier),
              frameBytes(1, static_cast<std::uint32_t>(sample.frameType), sample.payload,
                         entity.epochTimeStamp(), entity.relativeTimeStamp()));
    EXPECT_EQ(frameOf(entity), frameOf(*carrier));
  }
}

const auto kReader = SkeldaStreamFrameDeserializer::streamFrameDeserializer();

TEST(SkeldaStreamFrameDeserializer, TellsAWholeFrameAndTheLengthThatItAnnounces) {
  const auto with50 = [](std::uint32_t announced, int version) {
    return frameBytes(version, 134, std::string(50, ' ')).replace(20, 4, fourBytes(announced));
  };
  // The last announce lengths that would wrap around into small ones, and one that just would not.
  constexpr std::uint32_t kMost = 0xFFFFFFFF;
  const std::tuple<std::string, bool, std::uint32_t> cases[] = {
      {std::string(23, '\1'), false, 0},     {"", false, 0},
      {frameBytes(1, 134, ""), true, 24},    {frameBytes(1, 134, "{}") + "more", true, 26},
      {frameBytes(1, 134, "{}"), true, 26},  {frameBytes(0, 134, "{}") + "123", false, 30},
      {with50(100, 1), false, 124},          {frameBytes(0, 134, "{}") + "1234", true, 30},
      {with50(100, 0), false, 128},          {frameBytes(0x80, 134, "{}"), false, 30},
      {with50(kMost, 1), false, kMost},      {with50(kMost - 24, 1), false, kMost},
      {with50(kMost - 26, 0), false, kMost}, {with50(kMost - 25, 1), false, kMost - 1}};
  for (const auto& [bytes, isWhole, announced] : cases) {
    std::uint32_t length = 99;
    EXPECT_EQ(kReader->isAtLeastOneFrameInData(bytes, &length), isWhole);
    EXPECT_EQ(kReader->isAtLeastOneFrameInData(bytes), isWhole);
    EXPECT_EQ(length, announced) << bytes.size() << " bytes";
  }
}

TEST(SkeldaStreamFrameDeserializer, DecodesEveryFieldAndLeavesTheCrcUnchecked) {
  std::size_t consumed = 0;
  ErrorRef error;
  const std::string bytes = frameBytes(0, 0xFEDC86, "payload", -1, -2) + "\x01\x02\x03\x84rest";
  const auto frame = kReader->streamFrameFromData(bytes, &consumed, &error);
  const auto text = [](const SkeldaStreamFrame& of) {
    return fmt::format("version {} type {:x} class {} epoch {} relative {} payload {} crc {:x}",
                       of.frameVersion(), of.frameType(), of.frameClass().value_or("none"),
                       of.epochTimeStamp(), of.relativeTimeStamp(),
                       of.payloadString().value_or("none"), static_cast<unsigned>(of.crc32()));
  };
  EXPECT_EQ(text(*frame),
            "version 0 type fedc86 class none epoch -1 relative -2 payload payload crc 84030201");
  EXPECT_EQ(frame->payload().string(), "payload");
  EXPECT_EQ(frame->totalLength(), 35U);
  EXPECT_EQ(consumed, 35U);
  EXPECT_EQ(error, nullptr);

  // The byte-order flag is nobody's version, and the type has three bytes whatever stands behind.
  EXPECT_EQ(text(*kReader->streamFrameFromData(frameBytes(0x81, 134, "\xFF", 0xAB))),
            "version 1 type 86 class SkeldaStreamEvent epoch 171 relative 5000 payload none crc 0");
  EXPECT_EQ(kReader->frameTypeFromData(frameBytes(0x81, 134, "")), 134U);
}

struct RecordingHandle : SkeldaStreamFileHandle {
  std::optional<Data> readDataOfLength(std::size_t length, ErrorRef* error) override {
    requests.push_back(length);
    return SkeldaStreamFileHandle::readDataOfLength(length, error);
  }
  std::vector<std::size_t> requests;
};

std::string frames(std::size_t count, std::size_t length) {
  std::string bytes;
  for (std::size_t i = 0; i < count; ++i) bytes += frameOfLength(length, "abcdefghijklmnop"[i]);
  return bytes;
}

struct SkeldaStreamFrameIteratorTest : testing::Test {
  std::shared_ptr<SkeldaStreamFrameIterator> iterator(const Dictionary& config = {}) {
    return SkeldaStreamFrameIterator::frameIteratorWithFileHandle(
        handle_, SkeldaStreamFrameDeserializer::streamFrameDeserializer(), config);
  }
  /// Reads to the end; the byte that each frame is filled with. Frames that are kept outlast the
  /// buffer that they were read with.
  static std::string drain(SkeldaStreamFrameIterator& iterator) {
    std::vector<SkeldaStreamFrame::Ref> kept;
    while (iterator.hasNext()) kept.push_back(iterator.nextWithError());
    std::string seen;
    for (const auto& frame : kept) {
      seen += frame->payloadView().front();
      EXPECT_EQ(frame->payload().string(), std::string(frame->totalLength() - 24, seen.back()));
    }
    return seen;
  }

  TemporaryDirectory folder_;
  std::string path_ = folder_ / "log";
  const FaultyFileCalls plan_;
  std::shared_ptr<RecordingHandle> handle_ = std::make_shared<RecordingHandle>();
};

TEST_F(SkeldaStreamFrameIteratorTest, ReadsAsTheBufferAndTheFileHaveIt) {
  const auto wrapped = [](std::uint32_t buffered, std::uint32_t length) {
    return std::size_t{buffered - length};
  };
  const auto tornLong = frames(1, 900) + frames(2, 3000).substr(0, 4500);
  // The file, the frames that are seen, the last state, and what was asked for.
  const std::tuple<const char*, std::string, std::string, int, std::vector<std::size_t>> cases[] = {
      {"an empty file", "", "", 3, {1000}},
      {"three frames in one fill", frames(3, 200), "abc", 3, {1000}},
      {"a frame across the fill", frames(10, 150), "abcdefghij", 3, {1000, 900}},
      {"a fill that ends as a frame does: over", frames(16, 125), "abcdefgh", 3, {1000}},
      {"a frame that just fits", frames(1, 1000) + frames(1, 30), "a", 3, {1000}},
      {"a frame longer than the fill", frames(2, 3000), "ab", 3, {1000, wrapped(1000, 3000)}},
      {"a torn last frame", frames(2, 100) + frames(1, 100).substr(0, 60), "ab", 2, {1000, 940}},
      {"a torn header", frames(1, 100) + "\1", "a", 2, {1000, 999}},
      {"past its limit, and not refilled", tornLong, "aa", 2, {1000, wrapped(100, 3000)}},
      {"nothing but a torn frame", frames(1, 500).substr(0, 400), "", 2, {1000, 600}}};
  for (const auto& [what, file, seen, last, requests] : cases) {
    SCOPED_TRACE(what);
    writeFile(path_, file);
    handle_->requests.clear();
    const auto reading = iterator();
    EXPECT_EQ(reading->state(), 0);
    ErrorRef error;
    EXPECT_EQ(reading->open(path_, &error), file.empty() ? 3 : 1);
    EXPECT_EQ(drain(*reading), seen);
    EXPECT_EQ(reading->state(), last);
    EXPECT_FALSE(reading->hasNext());
    EXPECT_EQ(handle_->requests, requests);
    EXPECT_EQ(error, nullptr);
    reading->open(path_);
    EXPECT_EQ(drain(*reading), seen) << "an iterator can be opened again";
    reading->close();
    EXPECT_EQ(reading->state(), 3);
    EXPECT_TRUE(reading->buffer().empty());
  }
  const std::pair<std::uint64_t, std::size_t> limits[] = {{500, 500}, {0x100000001, 0xFFFFFFFF}};
  for (const auto& [limit, asked] : limits) {
    handle_->requests.clear();
    const std::string option(kSkeldaStreamConfigOptionMaxBytesToReadFromFrameLogFile);
    iterator({{option, limit}})->open(path_);
    EXPECT_EQ(handle_->requests, std::vector{asked});
  }
}

TEST_F(SkeldaStreamFrameIteratorTest, PassesOnWhyAFileCannotBeOpenedOrRead) {
  ErrorRef error;
  const auto reading = iterator();
  EXPECT_EQ(reading->open(folder_ / "absent", &error), 2);
  EXPECT_EQ(codeOf(error), 5);
  EXPECT_FALSE(reading->hasNext());

  writeFile(path_, frames(10, 150));
  plan_->failKind("read");
  EXPECT_EQ(reading->open(path_, &error), 2);
  EXPECT_EQ(error->code(), 4);

  plan_->failKind("read", 2);
  EXPECT_EQ(reading->open(path_), 1);
  EXPECT_EQ(drain(*reading), "abcdef");
  EXPECT_EQ(reading->state(), 2);
  EXPECT_EQ(plan_->faults(), 2U);
}

}  // namespace
