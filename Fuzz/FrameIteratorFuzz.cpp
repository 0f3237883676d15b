// Whatever the file and the size of the buffer, the iterator ends, and hands out the frames of the
// file in order, up to where its rules let it go.

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameIterator.h"
#include "Fuzz/Fuzz.h"
#include "Tests/Support/MemoryStreamFileHandle.h"
#include "include/Skelda_Watch/SkeldaConstants.h"

void fuzz(std::string_view file) {
  const unsigned least = takeByte(file);
  const unsigned limit = least + 256 * (takeByte(file) & 15U);
  const auto deserializer = SkeldaStreamFrameDeserializer::streamFrameDeserializer();
  SkeldaStreamFrameIterator iterator(
      std::make_shared<skelda::testing::MemoryStreamFileHandle>(file), deserializer,
      {{kSkeldaStreamConfigOptionMaxBytesToReadFromFrameLogFile, limit}});

  std::size_t total = 0;
  const auto frames = deserializer->allStreamFramesFromData(file, &total);
  std::size_t seen = 0;
  std::size_t offset = 0;
  iterator.open("log");
  while (iterator.hasNext()) {
    const auto frame = iterator.nextWithError();
    require(frame != nullptr && seen < frames.size());
    require(frame->payload() == frames[seen]->payload());
    require(frame->epochTimeStamp() == frames[seen]->epochTimeStamp());
    offset += frame->totalLength();
    ++seen;
    require(file.substr(offset).starts_with(iterator.buffer()));
  }
  require(iterator.state() == SkeldaStreamFrameIterator::kError ||
          iterator.state() == SkeldaStreamFrameIterator::kComplete);
  // An end inside the frames has one reason: the buffer drained, and nothing was left in it.
  if (iterator.state() == SkeldaStreamFrameIterator::kComplete) require(iterator.buffer().empty());
  iterator.close();
}
