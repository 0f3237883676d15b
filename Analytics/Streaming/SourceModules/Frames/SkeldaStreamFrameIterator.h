#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Analytics/Streaming/SourceModules/Frames/ISkeldaStreamFrameDeserializer.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/Value.h"

class ISkeldaStreamFileHandle;

/// Reads the frames of one frame log in order, through a buffer that it refills from the file.
/// Create, open, then hasNext() and nextWithError() in turn while there is one, then close. One
/// queue at a time.
///
/// The iteration is over where the buffer drains exactly at the end of a frame, even if the file
/// goes on; whoever must read every byte goes on with a deserializer from there.
class SkeldaStreamFrameIterator : public platform::Object {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamFrameIterator";
  static constexpr std::uint32_t kDefaultMaxBytesToRead = 1000;

  enum State : std::int32_t { kIdle = 0, kOpen = 1, kError = 2, kComplete = 3 };

  /// The configuration may hold kSkeldaStreamConfigOptionMaxBytesToReadFromFrameLogFile: how many
  /// bytes to buffer, read as an unsigned number.
  static std::shared_ptr<SkeldaStreamFrameIterator> frameIteratorWithFileHandle(
      std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
      std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer,
      const platform::Dictionary& config = {});
  SkeldaStreamFrameIterator(std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
                            std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer,
                            const platform::Dictionary& config);

  std::string_view className() const noexcept override { return kClassName; }

  /// Opens the file and fills the buffer for the first time. The resulting state: open, error, or
  /// complete for an empty file.
  std::int32_t open(const std::string& path, platform::ErrorRef* error = nullptr);
  /// Whether nextWithError() will find a whole frame; refills when it must.
  bool hasNext();
  /// The frame at the front of the buffer; only after hasNext() said yes.
  SkeldaStreamFrame::Ref nextWithError(platform::ErrorRef* error = nullptr);
  void close();

  std::int32_t state() const noexcept { return state_; }
  std::uint32_t maxBytesToRead() const noexcept { return maxBytesToRead_; }
  /// A copy of the bytes read and not yet handed out.
  std::string buffer() const;

 private:
  void fillupDataBufferWithLength(std::uint32_t length, platform::ErrorRef* error);
  /// Bytes that were read, of which the first `begin` have been handed out. Nobody changes them
  /// while frames share them.
  struct Piece {
    std::shared_ptr<const std::string> bytes;
    std::size_t begin = 0;
    std::string_view rest() const noexcept {
      return bytes ? std::string_view(*bytes).substr(begin) : std::string_view();
    }
  };

  void appendToBuffer(Piece piece);
  void completeFirstFrame();
  void consume(std::size_t length);
  void clearBuffer() noexcept;
  std::size_t bufferedLength() const noexcept { return front().size() + next().size(); }
  std::string_view front() const noexcept { return front_.rest(); }
  std::string_view next() const noexcept { return next_.rest(); }

  std::int32_t state_ = kIdle;
  std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer_;
  std::shared_ptr<ISkeldaStreamFileHandle> fileHandle_;
  std::uint32_t maxBytesToRead_ = kDefaultMaxBytesToRead;

  // The buffer, in two pieces, so that neither a refill nor the taking of a frame moves the bytes
  // that stay: what the last refill brought waits in `next_`, while `front_` is completed to the
  // one frame that lies across both. The first frame is thus whole in `front_` whenever the buffer
  // holds it.
  Piece front_;
  Piece next_;
};
