#pragma once

#include <curl/curl.h>

#include <string>

namespace skelda::platform {

/// A URL in its parts; of a text that is none it has none.
class ParsedURL {
 public:
  explicit ParsedURL(const std::string& text) noexcept : handle_(curl_url()) {
    if (handle_ == nullptr ||
        curl_url_set(handle_, CURLUPART_URL, text.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK) {
      curl_url_cleanup(handle_);
      handle_ = nullptr;
    }
  }
  ~ParsedURL() { curl_url_cleanup(handle_); }
  ParsedURL(const ParsedURL&) = delete;
  ParsedURL& operator=(const ParsedURL&) = delete;

  bool isValid() const noexcept { return handle_ != nullptr; }
  CURLU* handle() const noexcept { return handle_; }
  std::string part(CURLUPart part, unsigned flags = 0) const {
    char* text = nullptr;
    if (handle_ == nullptr || curl_url_get(handle_, part, &text, flags) != CURLUE_OK) return {};
    std::string copy(text);
    curl_free(text);
    return copy;
  }
  std::string scheme() const { return part(CURLUPART_SCHEME); }
  std::string port() const { return part(CURLUPART_PORT, CURLU_DEFAULT_PORT); }
  /// The whole of what `reference` names, seen from this URL; empty where it names nothing.
  std::string resolved(const std::string& reference) const {
    if (handle_ == nullptr ||
        curl_url_set(handle_, CURLUPART_URL, reference.c_str(),
                     CURLU_NON_SUPPORT_SCHEME | CURLU_URLENCODE) != CURLUE_OK) {
      return {};
    }
    return part(CURLUPART_URL);
  }

 private:
  CURLU* handle_;
};

}  // namespace skelda::platform
