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
  /// The bytes read and not yet handed out; valid until the next call.
  std::string_view buffer() const noexcept { return std::string_view(buffer_).substr(consumed_); }

 private:
  void fillupDataBufferWithLength(std::uint32_t length, platform::ErrorRef* error);
  void appendToBuffer(platform::Data data);
  void clearBuffer() noexcept;

  std::int32_t state_ = kIdle;
  std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer_;
  std::shared_ptr<ISkeldaStreamFileHandle> fileHandle_;
  std::uint32_t maxBytesToRead_ = kDefaultMaxBytesToRead;
  /// Bytes as they came from the file; the first `consumed_` of them have been handed out and are
  /// cut off at the next refill, so that taking a frame moves nothing.
  std::string buffer_;
  std::size_t consumed_ = 0;
};
