#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "Platform/Foundation/Value.h"

namespace skelda::platform {

/// A domain has identity: two domains are the same only when they are the same object, whatever
/// their texts.
using ErrorDomain = std::shared_ptr<const std::string>;
ErrorDomain makeErrorDomain(std::string_view text);

class Error;
/// How errors travel; null is "no error". As an out-parameter, `ErrorRef* error` comes last and may
/// be null.
using ErrorRef = std::shared_ptr<const Error>;

/// An error object: domain, code, user information. Immutable, any thread.
class Error {
 public:
  Error(ErrorDomain domain, std::int64_t code, Value userInfo = {});
  virtual ~Error() = default;
  const ErrorDomain& domainObject() const noexcept { return domain_; }
  const std::string& domain() const noexcept { return *domain_; }
  std::int64_t code() const noexcept { return code_; }
  const Value& userInfo() const noexcept { return userInfo_; }
  bool hasDomain(const ErrorDomain& domain) const noexcept { return domain_ == domain; }
  /// The text under "NSLocalizedDescription", or one made of domain and code.
  std::string localizedDescription() const;
  /// "Error Domain=... Code=... \"...\"", the "%@" of an error.
  std::string description() const;

 private:
  ErrorDomain domain_;
  std::int64_t code_;
  Value userInfo_;
};

/// The "%@" of an error that may be absent: "(null)" for null.
std::string description(const ErrorRef& error);

/// Failures of system calls: the POSIX domain, `code` as in errno, the text of strerror and the
/// path it was about.
const ErrorDomain& posixErrorDomain();
ErrorRef posixError(int code, std::string_view path = {});

/// Failures of texts and archives that cannot be read.
const ErrorDomain& cocoaErrorDomain();

/// Stores `value` where the caller asked for errors.
inline void setError(ErrorRef* error, ErrorRef value) {
  if (error != nullptr) *error = std::move(value);
}

}  // namespace skelda::platform
