#pragma once

#include <exception>
#include <string>
#include <string_view>

#include "Platform/Base/Assertion.h"  // IWYU pragma: export
#include "Platform/Foundation/Value.h"

namespace skelda::platform {

/// The name of the exceptions that platform assertions raise.
inline constexpr std::string_view kInternalInconsistencyException =
    "NSInternalInconsistencyException";

/// The platform's exception class.
class Exception : public std::exception {
 public:
  Exception(std::string_view name, std::string_view reason, Value userInfo = {});
  const char* what() const noexcept override;  ///< "name: reason"
  const std::string& name() const noexcept { return name_; }
  const std::string& reason() const noexcept { return reason_; }
  const Value& userInfo() const noexcept { return userInfo_; }

 private:
  std::string name_;
  std::string reason_;
  Value userInfo_;
  std::string what_;
};

/// A platform assertion failure: throws an Exception named kInternalInconsistencyException with
/// `reason`, in every build.
[[noreturn]] void assertionFailure(std::string_view reason);

}  // namespace skelda::platform
