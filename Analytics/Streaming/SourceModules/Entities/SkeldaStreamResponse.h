#pragma once

#include <memory>

#include "Analytics/Streaming/SourceModules/Entities/SkeldaStreamEntityBase.h"
#include "Platform/Foundation/Error.h"

/// What a stage answers to a stream message. Set once; never written to a log.
class SkeldaStreamResponse final : public SkeldaStreamEntityBase {
 public:
  static constexpr std::string_view kClassName = "SkeldaStreamResponse";

  SkeldaStreamResponse(std::int32_t type, platform::ErrorRef error);
  static std::shared_ptr<SkeldaStreamResponse> responseWithType(std::int32_t type,
                                                                platform::ErrorRef error);

  std::string_view className() const noexcept override { return kClassName; }
  std::int32_t responseType() const noexcept { return responseType_; }
  const platform::ErrorRef& error() const noexcept { return error_; }
  /// The base would ask for a JSON form, which a response does not have.
  std::string description() const override;

 private:
  std::int32_t responseType_;
  platform::ErrorRef error_;
};
