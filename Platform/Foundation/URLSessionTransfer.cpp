#include "Platform/Foundation/URLSessionTransfer.h"

#include <curl/curl.h>
#include <strings.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <utility>

#include "Platform/Base/Counted.h"
#include "Platform/Base/Descriptor.h"
#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"
#include "Platform/Foundation/URLSessionParsedURL.h"

namespace skelda::platform {

namespace {

/// Redirects of a transfer that are followed at once, and what each of the others waits.
constexpr std::size_t kPromptRedirects = 9;
constexpr std::chrono::seconds kFirstRedirectDelay{1};
constexpr std::chrono::seconds kLongestRedirectDelay{60};
constexpr std::size_t kHeaderLimit = 64 * 1024;
/// How much of an answer is read, and dropped, for the sake of the connection.
constexpr std::size_t kBodyReadLimit = 1024 * 1024;

bool isRedirect(std::int64_t status) noexcept {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

bool isSameName(std::string_view a, std::string_view b) noexcept {
  return a.size() == b.size() && (a.empty() || strncasecmp(a.data(), b.data(), a.size()) == 0);
}

std::string_view trimmed(std::string_view text) noexcept {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

const Value* fieldNamed(std::string_view name, const Dictionary& fields) noexcept {
  for (const auto& [key, value] : fields) {
    if (isSameName(key, name)) return &value;
  }
  return nullptr;
}

/// Null where the variable is absent or empty.
const char* environmentText(const char* name) noexcept {
  const char* text = ::secure_getenv(name);
  return text != nullptr && *text != '\0' ? text : nullptr;
}

}  // namespace

bool isWellFormedURL(const std::string& text) noexcept {
  // Nearly always the one that was asked for before, and found good.
  struct Good {
    Mutex mutex;
    std::array<char, 256> text GUARDED_BY(mutex);
    std::size_t length GUARDED_BY(mutex) = 0;
  };
  static NeverDestroyed<Good> good;
  const MutexLock lock(good->mutex);
  if (!text.empty() && text == std::string_view(good->text.data(), good->length)) return true;
  if (!ParsedURL(text).isValid()) return false;
  good->length = text.size() <= good->text.size() ? text.copy(good->text.data(), text.size()) : 0;
  return true;
}

URLSessionTransfer::URLSessionTransfer(URLSessionTaskRef task,
                                       URLSessionConfiguration configuration)
    : task_(std::move(task)),
      configuration_(configuration),
      handle_(curl_easy_init()),
      redirectDelay_(kFirstRedirectDelay, kLongestRedirectDelay),
      end_(Clock::now() + configuration.resourceTimeout),
      lastProgress_(Clock::now()) {}

URLSessionTransfer::~URLSessionTransfer() {
  curl_easy_cleanup(handle_);
  curl_slist_free_all(fields_);
}

// -- Making ready

ErrorRef URLSessionTransfer::prepare(URLRequest request, void* share) {
  if (handle_ == nullptr) return urlError(kURLErrorUnknown, "out of memory");
  auto url = std::make_unique<ParsedURL>(request.url);
  if (!url->isValid()) return urlError(kURLErrorBadURL);
  const std::string scheme = url->scheme();
  const bool wasSecure = url_ != nullptr && url_->scheme() == "https";
  if (scheme != "https" && (scheme != "http" || wasSecure))
    return urlError(kURLErrorUnsupportedURL);

  request_ = std::move(request);
  request_.timeoutInterval = std::clamp<std::chrono::milliseconds>(
      request_.timeoutInterval, std::chrono::milliseconds(1), std::chrono::hours(24));
  responseFields_ = {};
  start_ = Clock::now();
  if (requests_++ > kPromptRedirects) {
    start_ += std::chrono::duration_cast<Clock::duration>(redirectDelay_.next());
  }
  headerBytes_ = bodyBytes_ = 0;
  headIsWhole_ = false;
  flaw_.front() = '\0';
  sent_ = received_ = 0;
  body_.clear();
  cutOff_ = false;

  if (requests_ > 1) curl_easy_reset(handle_);
  url_ = std::move(url);
  curl_easy_setopt(handle_, CURLOPT_PRIVATE, this);
  curl_easy_setopt(handle_, CURLOPT_SHARE, share);
  curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
  // A name server that hangs is left to the thread that asks it; else its end would be waited for
  // by all that is on the wire.
  curl_easy_setopt(handle_, CURLOPT_QUICK_EXIT, 1L);
  curl_easy_setopt(handle_, CURLOPT_ERRORBUFFER, flaw_.data());
  curl_easy_setopt(handle_, CURLOPT_OPENSOCKETFUNCTION, &openSocket);
  curl_easy_setopt(handle_, CURLOPT_URL, request_.url.c_str());
  curl_easy_setopt(handle_, CURLOPT_CURLU, url_->handle());  // so that it is not parsed once more
  curl_easy_setopt(handle_, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(handle_, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(handle_, CURLOPT_PROXY, "");
  // Without TLS whether a connection can be shared is known from its first answer only: too late to
  // wait for.
  const bool waitToShare = request_.usesPipelining && scheme == "https";
  curl_easy_setopt(handle_, CURLOPT_PIPEWAIT, waitToShare ? 1L : 0L);
  curl_easy_setopt(handle_, CURLOPT_CONNECTTIMEOUT_MS, 0x7fffffffL);  // deadline() holds for all
  setMethod();
  if (!setHeaderFields()) return urlError(kURLErrorBadURL, "a header field is malformed");
  setSecurity();

  curl_easy_setopt(handle_, CURLOPT_HEADERFUNCTION, &headerCallback);
  curl_easy_setopt(handle_, CURLOPT_HEADERDATA, this);
  curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, &bodyCallback);
  curl_easy_setopt(handle_, CURLOPT_WRITEDATA, this);
  curl_easy_setopt(handle_, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(handle_, CURLOPT_XFERINFOFUNCTION, &progressCallback);
  curl_easy_setopt(handle_, CURLOPT_XFERINFODATA, this);
  curl_easy_setopt(handle_, CURLOPT_PREREQFUNCTION, &connectedCallback);
  curl_easy_setopt(handle_, CURLOPT_PREREQDATA, this);
  return nullptr;
}

void URLSessionTransfer::setMethod() {
  const bool needsLength = request_.method == "POST" || request_.method == "PUT";
  if (request_.body != nullptr || needsLength) {
    // Sent from where it lies, and sent again from there where a connection turns out to be dead.
    const bool empty = request_.body == nullptr || request_.body->empty();
    curl_easy_setopt(handle_, CURLOPT_POST, 1L);
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDS, empty ? "" : request_.body->view().data());
    curl_easy_setopt(handle_, CURLOPT_POSTFIELDSIZE_LARGE,
                     static_cast<curl_off_t>(empty ? 0 : request_.body->length()));
    if (request_.method == "POST") return;
  } else if (request_.method == "HEAD") {
    curl_easy_setopt(handle_, CURLOPT_NOBODY, 1L);
    return;
  } else {
    curl_easy_setopt(handle_, CURLOPT_HTTPGET, 1L);
    if (request_.method == "GET") return;
  }
  curl_easy_setopt(handle_, CURLOPT_CUSTOMREQUEST, request_.method.c_str());
}

bool URLSessionTransfer::setHeaderFields() {
  curl_slist_free_all(std::exchange(fields_, nullptr));
  const auto add = [this](const std::string& line) {
    auto* longer = curl_slist_append(fields_, line.c_str());
    if (longer != nullptr) fields_ = longer;
    return longer != nullptr;
  };
  // What the library would add by itself: a line without a value leaves a field out.
  for (const char* name : {"Accept", "Content-Type", "Expect"}) {
    if (fieldNamed(name, request_.headerFields) == nullptr && !add(std::string(name) + ":")) {
      return false;
    }
  }
  for (const auto& [name, value] : request_.headerFields) {
    const std::string text = value.description();
    constexpr std::string_view kForbidden("\r\n\0", 3);
    if (name.empty() || name.find_first_of("\r\n: ") != std::string::npos ||
        text.find_first_of(kForbidden) != std::string::npos) {
      return false;
    }
    if (!add(text.empty() ? name + ";" : name + ": " + text)) return false;
  }
  curl_easy_setopt(handle_, CURLOPT_HTTPHEADER, fields_);
  return true;
}

void URLSessionTransfer::setSecurity() {
  curl_easy_setopt(handle_, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(handle_, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(handle_, CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
  if (const char* file = environmentText("SSL_CERT_FILE")) {
    curl_easy_setopt(handle_, CURLOPT_CAINFO, file);
  }
  // No folder unless one is named: the system's bundle says the same, and a bundle alone is parsed
  // once for all connections.
  curl_easy_setopt(handle_, CURLOPT_CAPATH, environmentText("SSL_CERT_DIR"));
}

// -- On the wire

void URLSessionTransfer::setOnWire(bool onWire) noexcept {
  onWire_ = onWire;
  didProgress();
}

URLSessionTransfer::Clock::time_point URLSessionTransfer::deadline() const noexcept {
  return onWire_ ? std::min(end_, lastProgress_ + request_.timeoutInterval) : end_;
}

std::size_t URLSessionTransfer::headerCallback(char* bytes, std::size_t size, std::size_t count,
                                               void* self) {
  try {
    static_cast<URLSessionTransfer*>(self)->didReceiveHeaderLine({bytes, size * count});
    return size * count;
  } catch (const std::exception&) {
    return CURL_WRITEFUNC_ERROR;
  }
}

std::size_t URLSessionTransfer::bodyCallback(char* bytes, std::size_t size, std::size_t count,
                                             void* self) {
  try {
    const bool goOn = static_cast<URLSessionTransfer*>(self)->didReceiveBody({bytes, size * count});
    return goOn ? size * count : CURL_WRITEFUNC_ERROR;
  } catch (const std::exception&) {
    return CURL_WRITEFUNC_ERROR;
  }
}

int URLSessionTransfer::progressCallback(void* self, std::int64_t, std::int64_t received,
                                         std::int64_t, std::int64_t sent) {
  auto* transfer = static_cast<URLSessionTransfer*>(self);
  if (transfer->received_ != received || transfer->sent_ != sent) {
    transfer->received_ = received;
    transfer->sent_ = sent;
    transfer->didProgress();
  }
  return 0;
}

int URLSessionTransfer::openSocket(void*, int, curl_sockaddr* address) {
  return aboveStandardDescriptors(::socket(
      address->family, address->socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address->protocol));
}

int URLSessionTransfer::connectedCallback(void* self, char*, char*, int, int) {
  static_cast<URLSessionTransfer*>(self)->didProgress();
  return CURL_PREREQFUNC_OK;
}

void URLSessionTransfer::didReceiveHeaderLine(std::string_view line) {
  didProgress();
  const bool isStatusLine = line.starts_with("HTTP/");
  if (isStatusLine) {  // also the one after an interim answer
    responseFields_ = {};
    headerBytes_ = 0;
  }
  // Once: behind a body may come more fields.
  headIsWhole_ = !isStatusLine && (headIsWhole_ || trimmed(line).empty());
  headerBytes_ += line.size();
  const auto colon = line.find(':');
  if (isStatusLine || colon == std::string_view::npos || headerBytes_ > kHeaderLimit) return;
  const std::string_view name = trimmed(line.substr(0, colon));
  if (name.empty()) return;
  std::string value(trimmed(line.substr(colon + 1)));
  for (const auto& [known, before] : responseFields_) {
    if (!isSameName(known, name)) continue;
    responseFields_.set(std::string(known), before.description() + ", " + value);
    return;
  }
  responseFields_.append(std::string(name), std::move(value));
}

bool URLSessionTransfer::didReceiveBody(std::string_view bytes) {
  bodyBytes_ += bytes.size();
  const std::size_t room = configuration_.responseBodyLimit - body_.length();
  body_.append(bytes.substr(0, room));
  cutOff_ = bodyBytes_ > configuration_.responseBodyLimit + kBodyReadLimit && requestIsSent();
  return !cutOff_;
}

bool URLSessionTransfer::requestIsSent() const {
  curl_off_t sent = 0;
  curl_easy_getinfo(handle_, CURLINFO_SIZE_UPLOAD_T, &sent);
  return request_.body == nullptr || sent >= static_cast<curl_off_t>(request_.body->length());
}

// -- Afterwards

std::int64_t URLSessionTransfer::statusCode() const {
  long status = 0;
  curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status);
  return status;
}

std::optional<URLRequest> URLSessionTransfer::proposedRedirect() const {
  const std::int64_t status = statusCode();
  const Value* location = fieldNamed("Location", responseFields_);
  if (!isRedirect(status) || location == nullptr) return std::nullopt;
  const ParsedURL current(request_.url);
  const bool isSecure = current.scheme() == "https";
  URLRequest proposed = request_;
  proposed.url = current.resolved(location->description());
  const std::string scheme = ParsedURL(proposed.url).scheme();
  if (scheme != "https" && (scheme != "http" || isSecure)) return std::nullopt;
  if (status == 303) {
    if (proposed.method != "HEAD") proposed.method = "GET";
    proposed.body = nullptr;
    proposed.headerFields = {};
    for (const auto& [name, value] : request_.headerFields) {
      if (!isSameName(name, "Content-Type")) proposed.headerFields.append(name, value);
    }
  }
  return proposed;
}

HTTPURLResponseRef URLSessionTransfer::response() const {
  const std::int64_t status = statusCode();
  if (status == 0) return nullptr;
  return makeCounted<const HTTPURLResponse>(HTTPURLResponse{request_.url, status, responseFields_});
}

}  // namespace skelda::platform
