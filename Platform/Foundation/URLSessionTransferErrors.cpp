// What the transfer library's results mean for a task.

#include <curl/curl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <string_view>

#include "Platform/Base/LogFormat.h"
#include "Platform/Foundation/URLSessionParsedURL.h"
#include "Platform/Foundation/URLSessionTransfer.h"

namespace skelda::platform {

namespace {

/// Whether any interface but the loopback one is up with an address.
bool machineHasNetwork() noexcept {
  ifaddrs* all = nullptr;
  if (getifaddrs(&all) != 0) return true;
  bool found = false;
  for (const ifaddrs* one = all; one != nullptr && !found; one = one->ifa_next) {
    const int family = one->ifa_addr == nullptr ? AF_UNSPEC : one->ifa_addr->sa_family;
    found = (family == AF_INET || family == AF_INET6) && (one->ifa_flags & IFF_LOOPBACK) == 0 &&
            (one->ifa_flags & IFF_RUNNING) != 0;
  }
  freeifaddrs(all);
  return found;
}

std::int64_t codeFor(CURLcode result, long systemError) noexcept {
  switch (result) {
    case CURLE_OPERATION_TIMEDOUT:
      return kURLErrorTimedOut;
    case CURLE_URL_MALFORMAT:
      return kURLErrorBadURL;
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
      return machineHasNetwork() ? kURLErrorCannotFindHost : kURLErrorNotConnectedToInternet;
    case CURLE_COULDNT_CONNECT:
      return systemError == ENETUNREACH || systemError == ENETDOWN ? kURLErrorNotConnectedToInternet
                                                                   : kURLErrorCannotConnectToHost;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_FAIL_REWIND:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
      return kURLErrorNetworkConnectionLost;
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_ISSUER_ERROR:
    case CURLE_SSL_CACERT_BADFILE:
      return kURLErrorServerCertificateUntrusted;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_ENGINE_INITFAILED:
    case CURLE_SSL_SHUTDOWN_FAILED:
    case CURLE_USE_SSL_FAILED:
      return kURLErrorSecureConnectionFailed;
    case CURLE_UNSUPPORTED_PROTOCOL:  // an answer that is no HTTP: the URL was looked at before
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
      return kURLErrorBadServerResponse;
    default:
      return kURLErrorUnknown;
  }
}

/// Whether a handshake failed where a signature was verified. A certificate under the name of an
/// authority that is trusted, but signed with another key, ends so: the library then names the
/// first step that failed, and not that the certificate is refused.
bool isOfASignature(std::string_view flaw) noexcept {
  constexpr std::string_view kRoutines[] = {
      ":asn1 encoding routines:", ":rsa routines:", ":elliptic curve routines:",
      ":digital envelope routines:"};
  return std::any_of(std::begin(kRoutines), std::end(kRoutines),
                     [&](auto name) { return flaw.find(name) != std::string_view::npos; });
}

}  // namespace

ErrorRef URLSessionTransfer::errorFor(int result) const {
  if (result == CURLE_OK || cutOff_) return errorOfAnswer();
  long systemError = 0;
  curl_easy_getinfo(handle_, CURLINFO_OS_ERRNO, &systemError);
  const auto code = static_cast<CURLcode>(result);
  const std::int64_t error = codeFor(code, systemError);
  if (error == kURLErrorServerCertificateUntrusted ||
      (code == CURLE_SSL_CONNECT_ERROR && isOfASignature(flaw_.data()))) {
    return errorOfCertificate();
  }
  return urlError(error, curl_easy_strerror(code));
}

/// Of one that the library takes for an answer.
ErrorRef URLSessionTransfer::errorOfAnswer() const {
  const std::int64_t status = statusCode();
  if (!headIsWhole_) return urlError(kURLErrorNetworkConnectionLost, "the answer's head broke off");
  // A status line such as "HTTP/200 OK", in which no status can be read.
  if (status < 200) return urlError(kURLErrorBadServerResponse);
  if (status < 300 && !requestIsSent()) {
    return urlError(kURLErrorNetworkConnectionLost, "answered before the body was sent");
  }
  return nullptr;
}

ErrorRef URLSessionTransfer::errorOfCertificate() const {
  const ParsedURL url(request_.url);
  const char* const authorities = ::secure_getenv("SSL_CERT_FILE");
  SKELDA_PLATFORM_NOTICE_ONCE(
      "Skelda: the certificate of {}:{} was refused: {}. Nothing is sent there. Authorities other "
      "than the system's are trusted by naming their file in SSL_CERT_FILE (now: {})",
      url.part(CURLUPART_HOST), url.port(), flaw_.data(),
      authorities != nullptr ? authorities : "not set");
  return urlError(kURLErrorServerCertificateUntrusted, flaw_.data());
}

}  // namespace skelda::platform
