#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Base/RetryDelay.h"
#include "Platform/Foundation/URLSession.h"

struct curl_slist;
struct curl_sockaddr;

namespace skelda::platform {

class ParsedURL;

/// One task on the wire: a handle of the transfer library, what has come in so far, and how long it
/// may still take. Used on the network thread only.
class URLSessionTransfer {
 public:
  using Clock = std::chrono::steady_clock;

  URLSessionTransfer(URLSessionTaskRef task, URLSessionConfiguration configuration);
  ~URLSessionTransfer();
  URLSessionTransfer(const URLSessionTransfer&) = delete;
  URLSessionTransfer& operator=(const URLSessionTransfer&) = delete;

  /// Makes the handle ready for `request`, with what has come in forgotten. An error where the
  /// request cannot be sent at all.
  ErrorRef prepare(URLRequest request, void* share);

  void* handle() const noexcept { return handle_; }
  const URLSessionTaskRef& task() const noexcept { return task_; }
  /// Whether the transfer library has it; otherwise it waits for the delegate or for its start.
  bool isOnWire() const noexcept { return onWire_; }
  void setOnWire(bool onWire) noexcept;
  bool awaitsDecision() const noexcept { return awaitsDecision_; }
  void setAwaitsDecision(bool awaits) noexcept { awaitsDecision_ = awaits; }
  bool waits() const noexcept { return !onWire_ && !awaitsDecision_; }
  /// When the request that it was made ready for may go out: at once, but for one that follows many
  /// redirects.
  Clock::time_point start() const noexcept { return start_; }
  Clock::time_point deadline() const noexcept;

  /// What the transfer library's result means for the task: null where the answer counts.
  ErrorRef errorFor(int result) const;
  /// What the answer redirects to, where it may be followed.
  std::optional<URLRequest> proposedRedirect() const;
  HTTPURLResponseRef response() const;
  Data takeBody() noexcept { return std::move(body_); }

 private:
  static std::size_t headerCallback(char* bytes, std::size_t size, std::size_t count, void* self);
  static std::size_t bodyCallback(char* bytes, std::size_t size, std::size_t count, void* self);
  static int progressCallback(void* self, std::int64_t, std::int64_t received, std::int64_t,
                              std::int64_t sent);
  static int openSocket(void*, int purpose, curl_sockaddr* address);
  static int connectedCallback(void* self, char*, char*, int, int);

  void setMethod();
  bool setHeaderFields();
  void setSecurity();
  void didReceiveHeaderLine(std::string_view line);
  bool didReceiveBody(std::string_view bytes);
  bool requestIsSent() const;
  void didProgress() noexcept { lastProgress_ = Clock::now(); }
  std::int64_t statusCode() const;
  ErrorRef errorOfAnswer() const;
  ErrorRef errorOfCertificate() const;

  const URLSessionTaskRef task_;
  const URLSessionConfiguration configuration_;
  URLRequest request_;
  std::unique_ptr<ParsedURL> url_;  ///< of `request_`; the handle reads it
  void* handle_ = nullptr;
  curl_slist* fields_ = nullptr;
  std::array<char, 256> flaw_{};  ///< the library's words for what failed
  bool onWire_ = false;
  bool awaitsDecision_ = false;
  std::size_t requests_ = 0;
  RetryDelay redirectDelay_;
  Clock::time_point start_;

  const Clock::time_point end_;
  Clock::time_point lastProgress_;
  std::int64_t sent_ = 0;
  std::int64_t received_ = 0;

  Dictionary responseFields_;
  std::size_t headerBytes_ = 0;
  bool headIsWhole_ = false;
  Data body_;
  std::size_t bodyBytes_ = 0;
  bool cutOff_ = false;
};

}  // namespace skelda::platform
