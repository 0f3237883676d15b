// Any bytes split into frames that lie back to back, and each frame is written again as it was
// read.

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameDeserializer.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessage.h"
#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamMessageSerializer.h"
#include "Fuzz/Fuzz.h"

namespace {

/// Whether the bytes are the frame that the agent would write of it, the first byte excepted, whose
/// upper bits a reader passes over, and the CRC, which it does not look at.
void requireSameWhenWritten(const SkeldaStreamFrame& frame, std::string_view bytes) {
  const auto message = SkeldaStreamMessage::streamMessageFromFrame(frame);
  const auto written = SkeldaStreamMessageSerializer().frameFromStreamMessage(*message);
  if (!written) return require(!frame.frameClass() || frame.payload().empty());
  const std::size_t compared = bytes.size() - (frame.frameVersion() == 0 ? 4 : 0);
  require(written->length() == bytes.size());
  require(written->view().substr(1, compared - 1) == bytes.substr(1, compared - 1));
}

}  // namespace

void fuzz(std::string_view bytes) {
  const SkeldaStreamFrameDeserializer deserializer;
  std::size_t total = 0;
  platform::ErrorRef error;
  std::size_t offset = 0;
  for (const auto& frame : deserializer.allStreamFramesFromData(bytes, &total, &error)) {
    require(frame->totalLength() >= 24 && offset + frame->totalLength() <= bytes.size());
    requireSameWhenWritten(*frame, bytes.substr(offset, frame->totalLength()));
    offset += frame->totalLength();
    require(!frame->description().empty());
  }
  require(error == nullptr && offset == total);
  std::uint32_t announced = 0;
  require(!deserializer.isAtLeastOneFrameInData(bytes.substr(total), &announced));
  require(announced == 0 || announced > bytes.size() - total);
  deserializer.debugLogFrameData(bytes, "fuzz");
}
