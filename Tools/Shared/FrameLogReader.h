#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace skelda::tools {

/// One frame as it lies in a log.
struct FrameRecord {
  std::uint64_t offset = 0;
  std::uint8_t version = 0;
  bool isBigEndian = false;
  std::int32_t type = 0;
  /// Of the type; empty for a type that has none.
  std::string_view className;
  std::int64_t epochTimeStamp = 0;
  std::int64_t relativeTimeStamp = 0;
  std::uint32_t payloadLength = 0;
  /// The payload, or what of it the limit lets through.
  std::string payload;
  bool hasCrc = false;
  std::uint32_t storedCrc = 0;
  std::uint32_t computedCrc = 0;

  bool hasWholePayload() const noexcept { return payload.size() == payloadLength; }
  bool hasRightCrc() const noexcept { return storedCrc == computedCrc; }
};

/// Reads a frame log as a stream, in constant memory: a frame that announces a huge length takes no
/// more than the limit on payloads, and is read to its end all the same.
class FrameLogReader {
 public:
  enum class Result {
    frame,    ///< one whole frame
    end,      ///< the log ended where a frame did
    torn,     ///< the log ended inside a frame
    damaged,  ///< no writer makes such a header: where the next frame begins is not known
    failed,   ///< the system could not read on; see error()
  };

  /// `fd` stays the caller's. `beforeRead` is called whenever the reader is about to wait for
  /// bytes.
  FrameLogReader(int fd, std::size_t payloadLimit, std::function<void()> beforeRead = {});
  /// A log in memory, which outlives the reader. Payloads are kept whole.
  explicit FrameLogReader(std::string_view log);

  Result next(FrameRecord& frame);

  /// Where the frame began that the last call was about; at the end, the length of the log.
  std::uint64_t offset() const noexcept { return frameOffset_; }
  /// Of a torn frame: how many of its bytes are there, and how many it announces (of a torn header,
  /// the header's). Of a damaged one, what is wrong.
  const std::string& problem() const noexcept { return problem_; }
  int error() const noexcept { return error_; }

 private:
  static constexpr std::size_t kBufferLength = std::size_t{64} << 10;

  /// Hands out the next bytes, at most `length`; empty at the end of the log and on failure.
  std::string_view take(std::size_t length);
  bool takeAll(char* out, std::size_t length);
  bool takePayload(FrameRecord& frame, class Crc32& crc);
  Result incomplete(std::uint64_t wanted);

  int fd_;
  std::size_t payloadLimit_;
  std::function<void()> beforeRead_;
  std::unique_ptr<char[]> buffer_;
  std::string_view ahead_;  // what was read and not yet taken
  std::uint64_t position_ = 0;
  std::uint64_t frameOffset_ = 0;
  std::string problem_;
  int error_ = 0;
};

}  // namespace skelda::tools
