#include "Platform/Foundation/URLError.h"

#include <memory>
#include <string>

#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"

namespace skelda::platform {

const ErrorDomain& urlErrorDomain() {
  static NeverDestroyed<ErrorDomain> domain(makeErrorDomain("NSURLErrorDomain"));
  return *domain;
}

namespace {

std::string_view textFor(std::int64_t code) noexcept {
  switch (code) {
    case kURLErrorCancelled:
      return "cancelled";
    case kURLErrorBadURL:
      return "bad URL";
    case kURLErrorTimedOut:
      return "The request timed out.";
    case kURLErrorUnsupportedURL:
      return "unsupported URL";
    case kURLErrorCannotFindHost:
      return "A server with the specified hostname could not be found.";
    case kURLErrorCannotConnectToHost:
      return "Could not connect to the server.";
    case kURLErrorNetworkConnectionLost:
      return "The network connection was lost.";
    case kURLErrorNotConnectedToInternet:
      return "The Internet connection appears to be offline.";
    case kURLErrorBadServerResponse:
      return "The server's answer made no sense.";
    case kURLErrorSecureConnectionFailed:
      return "A secure connection to the server could not be made.";
    case kURLErrorServerCertificateUntrusted:
      return "The certificate of this server is invalid.";
    default:
      return "unknown error";
  }
}

}  // namespace

ErrorRef urlError(std::int64_t code, std::string_view detail) {
  std::string text(textFor(code));
  if (!detail.empty()) text.append(" (").append(detail).append(")");
  return makeCounted<const Error>(urlErrorDomain(), code,
                                  Value{{"NSLocalizedDescription", std::move(text)}});
}

}  // namespace skelda::platform
