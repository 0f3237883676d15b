#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameIterator.h"

#include <gtest/gtest.h>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Tests/Analytics/Streaming/SourceModules/Entities/FrameSamples.h"
#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/TemporaryDirectory.h"

using namespace skelda::testing;

namespace {

/// Remembers what was asked for.
class RecordingHandle : public SkeldaStreamFileHandle {
 public:
  std::optional<platform::Data> readDataOfLength(std::size_t length,
                                                 platform::ErrorRef* error) override {
    requests.push_back(length);
    return SkeldaStreamFileHandle::readDataOfLength(length, error);
  }
  std::vector<std::size_t> requests;
};

std::string frames(std::size_t count, std::size_t length) {
  std::string bytes;
  for (std::size_t i = 0; i < count; ++i)
    bytes += frameOfLength(length, static_cast<char>('a' + i));
  return bytes;
}

class SkeldaStreamFrameIteratorTest : public ::testing::Test {
 protected:
  std::shared_ptr<SkeldaStreamFrameIterator> iterator(const platform::Dictionary& config = {}) {
    return SkeldaStreamFrameIterator::frameIteratorWithFileHandle(
        handle_, SkeldaStreamFrameDeserializer::streamFrameDeserializer(), config);
  }
  /// Reads to the end; the payloads' first bytes, one a frame.
  static std::string drain(SkeldaStreamFrameIterator& iterator) {
    std::string seen;
    while (iterator.hasNext()) seen += iterator.nextWithError()->payload().string()[0];
    return seen;
  }

  TemporaryDirectory folder_;
  std::string path_ = folder_ / "log";
  FaultPlanRef plan_ = std::make_shared<FaultPlan>();
  FaultyFileCalls calls_{plan_};
  std::shared_ptr<RecordingHandle> handle_ = std::make_shared<RecordingHandle>();
};

}  // namespace

TEST_F(SkeldaStreamFrameIteratorTest, ReadsAsTheBufferAndTheFileHaveIt) {
  struct Case {
    const char* what;
    std::string file;
    std::int32_t opened;
    std::string seen;
    std::int32_t last;
    std::vector<std::size_t> requests;
  };
  const auto wrapped = [](std::uint32_t buffered, std::uint32_t length) {
    return std::size_t{buffered - length};
  };
  const Case cases[] = {
      {"an empty file", "", 3, "", 3, {1000}},
      {"three frames in one fill", frames(3, 200), 1, "abc", 3, {1000}},
      {"a frame across the fill", frames(10, 150), 1, "abcdefghij", 3, {1000, 900}},
      {"the buffer drains at a frame's end: over, though the file goes on",
       frames(16, 125),
       1,
       "abcdefgh",
       3,
       {1000}},
      {"a frame that just fits", frames(1, 1000) + frames(1, 30), 1, "a", 3, {1000}},
      {"a frame longer than the buffer takes the rest of the file",
       frames(2, 3000),
       1,
       "ab",
       3,
       {1000, wrapped(1000, 3000)}},
      {"a torn last frame", frames(2, 100) + frames(1, 100).substr(0, 60), 1, "ab", 2, {1000, 940}},
      {"a torn header", frames(1, 100) + "\1", 1, "a", 2, {1000, 999}},
      {"a torn long frame: the buffer is past its limit, and is not refilled",
       frames(1, 900) + frames(2, 3000).substr(0, 4500),
       1,
       "aa",
       2,
       {1000, wrapped(100, 3000)}},
      {"nothing but a torn frame", frames(1, 500).substr(0, 400), 1, "", 2, {1000, 600}},
  };
  for (const Case& tried : cases) {
    writeFile(path_, tried.file);
    handle_->requests.clear();
    const auto reading = iterator();
    EXPECT_EQ(reading->state(), 0);
    platform::ErrorRef error;
    EXPECT_EQ(reading->open(path_, &error), tried.opened) << tried.what;
    EXPECT_EQ(drain(*reading), tried.seen) << tried.what;
    EXPECT_EQ(reading->state(), tried.last) << tried.what;
    EXPECT_FALSE(reading->hasNext()) << tried.what;
    EXPECT_EQ(handle_->requests, tried.requests) << tried.what;
    EXPECT_EQ(error, nullptr) << tried.what;
    reading->open(path_);
    EXPECT_EQ(drain(*reading), tried.seen) << "an iterator can be opened again";
    reading->close();
    EXPECT_EQ(reading->state(), 3);
    EXPECT_TRUE(reading->buffer().empty());
  }
}

TEST_F(SkeldaStreamFrameIteratorTest, PassesOnWhyAFileCannotBeOpenedOrRead) {
  platform::ErrorRef error;
  const auto reading = iterator();
  EXPECT_EQ(reading->open(folder_ / "absent", &error), 2);
  ASSERT_NE(error, nullptr);
  EXPECT_EQ(error->code(), 5);
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
