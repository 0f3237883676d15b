#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamResponse.h"

#include <fmt/format.h>

#include <utility>

#include "Platform/Base/Counted.h"

SkeldaStreamResponse::SkeldaStreamResponse(std::int32_t type, platform::ErrorRef error)
    : SkeldaStreamEntityBase(kNoFrameType), responseType_(type), error_(std::move(error)) {}

std::shared_ptr<SkeldaStreamResponse> SkeldaStreamResponse::responseWithType(
    std::int32_t type, platform::ErrorRef error) {
  return platform::makeCounted<SkeldaStreamResponse>(type, std::move(error));
}

std::string SkeldaStreamResponse::description() const {
  return fmt::format("<{}: {}, type = {}, error = {}>", className(), static_cast<const void*>(this),
                     responseType_, platform::description(error_));
}
