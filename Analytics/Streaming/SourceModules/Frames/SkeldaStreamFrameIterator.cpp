#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrameIterator.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "Analytics/Utils/ISkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaLog.h"
#include "Analytics/Utils/SkeldaStreamErrorConstants.h"
#include "Analytics/Utils/SkeldaUtil.h"
#include "Platform/Base/Counted.h"
#include "include/Skelda_Watch/SkeldaConstants.h"

namespace {

constexpr std::string_view kOpenMethod = "-[SkeldaStreamFrameIterator open:error:]";
constexpr std::string_view kFillupMethod =
    "-[SkeldaStreamFrameIterator fillupDataBufferWithLength:error:]";
constexpr std::string_view kHasNextMethod = "-[SkeldaStreamFrameIterator hasNext]";
constexpr std::string_view kNextMethod = "-[SkeldaStreamFrameIterator nextWithError:]";
constexpr std::string_view kCloseMethod = "-[SkeldaStreamFrameIterator close]";

/// The numbers in the log lines: each names the place that changed the state, and stays with it
/// however the code moves.
enum CallSite {
  kOpenFailed = 1,
  kFirstFillFailed,
  kOpened,
  kReadFailed,
  kEndOfFile,
  kRefillFailed,
  kTornFrame,
  kDecodeFailed,
  kDrained,
  kClosed,
};

}  // namespace

// Once for a log, not for each frame: cold, for this file is compiled for speed.
[[gnu::cold]] std::shared_ptr<SkeldaStreamFrameIterator>
SkeldaStreamFrameIterator::frameIteratorWithFileHandle(
    std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
    std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer,
    const platform::Dictionary& config) {
  return platform::makeCounted<SkeldaStreamFrameIterator>(std::move(fileHandle),
                                                          std::move(deserializer), config);
}

SkeldaStreamFrameIterator::SkeldaStreamFrameIterator(
    std::shared_ptr<ISkeldaStreamFileHandle> fileHandle,
    std::shared_ptr<ISkeldaStreamFrameDeserializer> deserializer,
    const platform::Dictionary& config)
    : deserializer_(std::move(deserializer)), fileHandle_(std::move(fileHandle)) {
  const platform::Value* limit =
      config.find(kSkeldaStreamConfigOptionMaxBytesToReadFromFrameLogFile);
  if (limit != nullptr && !limit->isNull()) {
    maxBytesToRead_ = static_cast<std::uint32_t>(
        std::min<std::uint64_t>(limit->unsignedValue(), std::numeric_limits<std::uint32_t>::max()));
  }
}

[[gnu::cold]] std::int32_t SkeldaStreamFrameIterator::open(const std::string& path,
                                                           platform::ErrorRef* error) {
  state_ = kIdle;
  clearBuffer();

  platform::ErrorRef failure;
  fileHandle_->openForReadingFile(path, &failure);
  if (failure != nullptr) {
    SKELDA_LOG(1, "{}: unable to open file for reading", kOpenMethod);
    platform::setError(error, std::move(failure));
    state_ = kError;
    SKELDA_LOG(2, "{}:{}: setting state to error", kOpenMethod, +kOpenFailed);
    return state_;
  }

  fillupDataBufferWithLength(maxBytesToRead_, &failure);
  if (failure != nullptr) {
    SKELDA_LOG(2, "{}: unable to fill up data buffer, error={}", kOpenMethod,
               platform::description(failure));
    platform::setError(error, std::move(failure));
    state_ = kError;
    SKELDA_LOG(2, "{}:{}: setting state to error", kOpenMethod, +kFirstFillFailed);
    return state_;
  }

  // An empty file has completed the iteration already.
  if (state_ == kIdle) state_ = kOpen;
  SKELDA_LOG(2, "{}:{}: setting state to {}", kOpenMethod, +kOpened, state_);
  return state_;
}

bool SkeldaStreamFrameIterator::hasNext() {
  if (state_ != kOpen) return false;

  std::uint32_t frameLength = 0;
  if (bufferedLength() > 0 && deserializer_->isAtLeastOneFrameInData(front(), &frameLength)) {
    return true;
  }
  const auto buffered = static_cast<std::uint32_t>(bufferedLength());
  // A frame longer than the target makes the difference wrap around to a huge count: the read then
  // takes all that the file still has, which is how such frames come in whole. The handle asks the
  // system for no more than is there.
  const std::uint32_t request =
      frameLength > maxBytesToRead_ ? buffered - frameLength : maxBytesToRead_ - buffered;
  platform::ErrorRef failure;
  fillupDataBufferWithLength(request, &failure);
  if (failure != nullptr) {
    state_ = kError;
    SKELDA_LOG(2, "{}:{}: setting state to error", kHasNextMethod, +kRefillFailed);
    return false;
  }
  if (state_ == kComplete) return false;
  if (deserializer_->isAtLeastOneFrameInData(front(), &frameLength)) return true;

  // The file ends inside a frame. That is what a torn last write leaves: no error object.
  state_ = kError;
  SKELDA_LOG(2, "{}:{}: setting state to error", kHasNextMethod, +kTornFrame);
  return false;
}

SkeldaStreamFrame::Ref SkeldaStreamFrameIterator::nextWithError(platform::ErrorRef* error) {
  std::size_t consumed = 0;
  platform::ErrorRef failure;
  SkeldaStreamFrame::Ref frame =
      deserializer_->streamFrameFromData(front(), &consumed, &failure, front_.bytes);
  if (failure != nullptr) {
    platform::setError(error, std::move(failure));
    state_ = kError;
    SKELDA_LOG(2, "{}:{}: setting state to error", kNextMethod, +kDecodeFailed);
    return nullptr;
  }
  consume(consumed);
  if (bufferedLength() == 0) {
    // Whatever the file still holds: an iteration ends where the buffer drains.
    clearBuffer();
    state_ = kComplete;
    SKELDA_LOG(2, "{}:{}: setting state to complete", kNextMethod, +kDrained);
  }
  return frame;
}

void SkeldaStreamFrameIterator::close() {
  fileHandle_->closeFile();
  state_ = kComplete;
  SKELDA_LOG(2, "{}:{}: setting state to {}", kCloseMethod, +kClosed, state_);
  clearBuffer();
}

void SkeldaStreamFrameIterator::fillupDataBufferWithLength(std::uint32_t length,
                                                           platform::ErrorRef* error) {
  if (!SkeldaUtil::assert_(bufferedLength() <= maxBytesToRead_, kFillupMethod)) {
    platform::setError(error, SkeldaStreamErrorConstants::errorFor(
                                  SkeldaStreamErrorConstants::kFunctionGuardFailure));
    return;
  }
  platform::ErrorRef failure;
  std::optional<platform::Data> data = fileHandle_->readDataOfLength(length, &failure);
  if (failure != nullptr) {
    platform::setError(error, std::move(failure));
    state_ = kError;
    SKELDA_LOG(2, "{}:{}: setting state to error", kFillupMethod, +kReadFailed);
    return;
  }
  if (data && !data->empty()) {
    appendToBuffer({platform::makeCounted<std::string>(std::move(*data).string())});
    return;
  }
  if (bufferedLength() == 0) state_ = kComplete;
  // Also when bytes are left over and the state stays: the line says that the file is at its end.
  SKELDA_LOG(2, "{}:{}: setting state to complete", kFillupMethod, +kEndOfFile);
}

[[gnu::cold]] std::string SkeldaStreamFrameIterator::buffer() const {
  return std::string(front()).append(next());
}

void SkeldaStreamFrameIterator::appendToBuffer(Piece piece) {
  if (front().empty()) {
    front_ = std::move(piece);
    return;
  }
  // `next_` is used up: a refill is asked for only when the first frame is not whole, and then all
  // that is buffered has been drawn to the front.
  next_ = std::move(piece);
  completeFirstFrame();
}

/// Draws bytes to the front until it holds a whole frame or everything.
void SkeldaStreamFrameIterator::completeFirstFrame() {
  // In a string of its own: frames that were handed out may share the one that it was begun in.
  auto drawn = platform::makeCounted<std::string>(front());
  std::uint32_t frameLength = 0;
  while (!next().empty() && !deserializer_->isAtLeastOneFrameInData(*drawn, &frameLength)) {
    // First the header, which tells how long the frame is, then the frame.
    const std::size_t wanted =
        std::max<std::size_t>(frameLength, deserializer_->lengthOfFrameHeader());
    const std::size_t missing = wanted > drawn->size() ? wanted - drawn->size() : next().size();
    const std::string_view piece = next().substr(0, missing);
    drawn->append(piece);
    next_.begin += piece.size();
  }
  front_ = {std::move(drawn)};
}

void SkeldaStreamFrameIterator::consume(std::size_t length) {
  front_.begin += std::min(length, front().size());
  if (!front().empty() || next().empty()) return;
  front_ = std::exchange(next_, {});
}

void SkeldaStreamFrameIterator::clearBuffer() noexcept {
  front_ = {};
  next_ = {};
}
