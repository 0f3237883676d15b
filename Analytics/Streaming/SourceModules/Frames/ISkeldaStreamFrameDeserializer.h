#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Analytics/Streaming/SourceModules/Frames/SkeldaStreamFrame.h"
#include "Platform/Foundation/Error.h"

/// Turns bytes into frames. Stateless and re-entrant: any queue. Every out-pointer may be null; the
/// bytes are only looked at during the call, but for an owner's.
class ISkeldaStreamFrameDeserializer {
 public:
  static constexpr std::string_view kProtocolName = "ISkeldaStreamFrameDeserializer";

  /// Whether the bytes begin with one whole frame. `totalBytesInFrame` becomes the length that the
  /// frame's header announces, 0 where there is no whole header, and the largest number where the
  /// announced length does not fit (such a frame is never whole).
  virtual bool isAtLeastOneFrameInData(std::string_view data,
                                       std::uint32_t* totalBytesInFrame = nullptr) const = 0;

  /// Decodes the first frame. The caller must have been told by isAtLeastOneFrameInData() that
  /// there is one: nothing is checked here. Never sets the error, never returns null. Where `owner`
  /// is given, which has the data in it and is not changed any more, the frame shares it, and
  /// nothing is copied.
  virtual SkeldaStreamFrame::Ref streamFrameFromData(
      std::string_view data, std::size_t* bytesReadSoFar = nullptr,
      platform::ErrorRef* error = nullptr,
      const std::shared_ptr<const std::string>& owner = nullptr) const = 0;

  /// The type of the first frame, from bytes 1 to 3; the caller has at least 4 bytes. Never sets
  /// the error.
  virtual std::uint32_t frameTypeFromData(std::string_view data,
                                          platform::ErrorRef* error = nullptr) const = 0;

  /// As many whole frames as the bytes hold, whatever the bytes; what is left behind them, a part
  /// of a frame, is not counted in `totalBytesRead` and no error.
  virtual std::vector<SkeldaStreamFrame::Ref> allStreamFramesFromData(
      std::string_view data, std::size_t* totalBytesRead = nullptr,
      platform::ErrorRef* error = nullptr) const = 0;

  virtual std::size_t lengthOfFrameHeader() const noexcept = 0;
  virtual std::size_t lengthOfFrameFooter() const noexcept = 0;

  /// At log level 2 and up, logs the first frame under that tag.
  virtual void debugLogFrameData(std::string_view data, std::string_view tag) const = 0;

 protected:
  ~ISkeldaStreamFrameDeserializer() = default;
};
