#pragma once

#include <cstdint>
#include <string>

#include "Platform/Foundation/Data.h"
#include "Platform/Foundation/Error.h"
#include "Platform/Foundation/Object.h"
#include "Platform/Foundation/URLSession.h"
#include "Platform/Foundation/Value.h"
#include "Platform/Platform.h"

/// What came of a request: the answer's bytes (as far as they are kept), status and header fields,
/// and the error if there was one. Immutable, any thread.
class SkeldaHTTPURLResponse : public platform::Object {
 public:
  /// Status and header fields from the platform's answer where there is one, else 0 and none.
  SkeldaHTTPURLResponse(const platform::HTTPURLResponseRef& response, platform::Data body,
                        platform::ErrorRef error);
  SkeldaHTTPURLResponse(platform::Data body, std::int64_t statusCode, platform::Dictionary headers,
                        platform::ErrorRef error);

  std::string_view className() const noexcept override { return "SkeldaHTTPURLResponse"; }
  const platform::Data& body() const noexcept { return body_; }
  std::int64_t statusCode() const noexcept { return statusCode_; }
  const platform::Dictionary& headers() const noexcept { return headers_; }
  const platform::ErrorRef& error() const noexcept { return error_; }

  /// A status from 200 to 299.
  bool isSuccess() const noexcept { return statusCode_ >= 200 && statusCode_ < 300; }
  std::string description() const;

 private:
  platform::Data body_;
  std::int64_t statusCode_ = 0;
  platform::Dictionary headers_;
  platform::ErrorRef error_;
};
