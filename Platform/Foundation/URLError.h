#pragma once

#include <cstdint>
#include <string_view>

#include "Platform/Foundation/Error.h"

namespace skelda::platform {

/// The domain of URL-loading errors. One object: errors are told apart by its identity.
const ErrorDomain& urlErrorDomain();

inline constexpr std::int64_t kURLErrorUnknown = -1;
inline constexpr std::int64_t kURLErrorCancelled = -999;
inline constexpr std::int64_t kURLErrorBadURL = -1000;
inline constexpr std::int64_t kURLErrorTimedOut = -1001;
inline constexpr std::int64_t kURLErrorUnsupportedURL = -1002;
inline constexpr std::int64_t kURLErrorCannotFindHost = -1003;
inline constexpr std::int64_t kURLErrorCannotConnectToHost = -1004;
inline constexpr std::int64_t kURLErrorNetworkConnectionLost = -1005;
inline constexpr std::int64_t kURLErrorNotConnectedToInternet = -1009;
inline constexpr std::int64_t kURLErrorBadServerResponse = -1011;
inline constexpr std::int64_t kURLErrorSecureConnectionFailed = -1200;
inline constexpr std::int64_t kURLErrorServerCertificateUntrusted = -1202;

/// An error of that domain with a text for people; `detail` says more where there is more to say.
ErrorRef urlError(std::int64_t code, std::string_view detail = {});

}  // namespace skelda::platform
