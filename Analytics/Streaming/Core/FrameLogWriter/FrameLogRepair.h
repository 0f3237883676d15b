#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrame.h"
#include "Platform/Foundation/Data.h"

class ISkeldaStreamFileHandle;
class ISkeldaStreamFrameDeserializer;
class ISkeldaStreamMessageSerializer;

/// The longest run of whole frames at the head of a frame log that was left behind, and the log cut
/// down to it. No lock: one thread at a time.
class FrameLogRepair {
 public:
  /// Why a log is readable no further.
  enum class End { whole, partOfAFrame, payloadIsNoObject, frameCannotBeWrittenAgain };
  struct ReadableLog {
    platform::Data frames;  ///< as the serializer writes them
    std::size_t countOfFrames = 0;
    std::size_t lengthInFile = 0;  ///< the bytes that they take up in the file
    std::size_t lengthOfFile = 0;  ///< what is between the two is cut
    End end = End::whole;
    bool isAsWritten = false;  ///< the file holds these bytes and no others
  };

  FrameLogRepair(std::string path, std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
                 std::shared_ptr<ISkeldaStreamMessageSerializer> serializer,
                 std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer);

  /// Nothing where the log cannot be read just now. Changes nothing on disk.
  std::optional<ReadableLog> read();
  /// Leaves `log.frames` in the file, or, where there is no room for a second copy, the bytes that
  /// they were read from. False where neither could be done: the file is as it was.
  bool cut(const ReadableLog& log);

  static std::string_view text(End end) noexcept;

 private:
  std::optional<End> keepFrame(const SkeldaStreamFrame::Ref& frame, ReadableLog& readable);

  const std::string path_;
  const std::shared_ptr<ISkeldaStreamFileHandle> fileHandle_;
  const std::shared_ptr<ISkeldaStreamMessageSerializer> serializer_;
  const std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer_;
};
