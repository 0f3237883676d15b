#include "Analytics/Networking/DataSender/SkeldaHTTPURLResponse.h"

#include <fmt/format.h>

#include <utility>

#include "Platform/Foundation/TextCoding.h"

SkeldaHTTPURLResponse::SkeldaHTTPURLResponse(const platform::HTTPURLResponseRef& response,
                                             platform::Data body, platform::ErrorRef error)
    : body_(std::move(body)),
      statusCode_(response != nullptr ? response->statusCode : 0),
      headers_(response != nullptr ? response->headerFields : platform::Dictionary()),
      error_(std::move(error)) {}

SkeldaHTTPURLResponse::SkeldaHTTPURLResponse(platform::Data body, std::int64_t statusCode,
                                             platform::Dictionary headers, platform::ErrorRef error)
    : body_(std::move(body)),
      statusCode_(statusCode),
      headers_(std::move(headers)),
      error_(std::move(error)) {}

std::string SkeldaHTTPURLResponse::description() const {
  const std::string_view text =
      platform::isValidUTF8(body_.view()) ? body_.view() : std::string_view("(null)");
  return fmt::format("Status: {} error: {} body: {}", statusCode_,
                     error_ != nullptr ? error_->localizedDescription() : "(null)", text);
}
