#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

#include "Platform/Foundation/Error.h"
#include "Platform/Platform.h"

/// The errors of the stream: each carries its message as its domain, its code, and no user
/// information. Errors of one code share one domain object. Any thread.
class SkeldaStreamErrorConstants : public platform::Error {
 public:
  enum Code : std::uint32_t {
    kNoError = 0,
    kFunctionGuardFailure = 1,
    kURLCreationFailure = 2,
    kDeserializeFailure = 3,
    kFileReadFailure = 4,
    kFileOpenFailure = 5,
    kFileWriteFailure = 6,
    kIteratorByteCount = 7,
    kIteratorRefill = 8,
    kIteratorFrames = 9,
    kReaderOpenIterator = 10,
    kUnexpectedFrameType = 11,
    kDirectoryReadFailure = 12,
  };
  static constexpr std::size_t kCount = 13;

  /// Null for code 0 and for codes past the last.
  static platform::ErrorRef errorFor(std::uint32_t code);
  /// The messages in the order of their codes.
  static const std::array<std::string_view, kCount>& streamErrorArray() noexcept;

 private:
  using platform::Error::Error;
};
