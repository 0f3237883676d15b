#include "Analytics/Utils/SkeldaStreamErrorConstants.h"
#include "Platform/Base/Counted.h"

#include <vector>

namespace {

constexpr std::array<std::string_view, SkeldaStreamErrorConstants::kCount> kMessages = {
    "No Error",
    "funcation guard failure",  // spelled so wherever it is read
    "url creation failure",
    "Error while attempting to deserialize data",
    "Error while reading from file",
    "Error while opening file handle",
    "Error while writing to file handle",
    "FrameIterator: Error in byte count of frame in buffered data",
    "FrameIterator: Error refilling data buffer",
    "FrameIterator: Error reading stream frames from data buffer",
    "FrameLogReader: Error while attempting to open iterator",
    "EntityFactory: Received an unexpected frame type",
    "File Manager: Error while reading contents of directory",
};

}  // namespace

platform::ErrorRef SkeldaStreamErrorConstants::errorFor(std::uint32_t code) {
  // One object for each code: making an error must not fail where memory is what is missing.
  static const auto& errors = *new std::vector<platform::ErrorRef>([] {
    std::vector<platform::ErrorRef> made{nullptr};
    for (std::size_t i = 1; i < kCount; ++i) {
      made.push_back(platform::counted<const platform::Error>(new SkeldaStreamErrorConstants(
          platform::makeErrorDomain(kMessages[i]), static_cast<std::int64_t>(i))));
    }
    return made;
  }());
  return code < errors.size() ? errors[code] : nullptr;
}

const std::array<std::string_view, SkeldaStreamErrorConstants::kCount>&
SkeldaStreamErrorConstants::streamErrorArray() noexcept {
  return kMessages;
}
