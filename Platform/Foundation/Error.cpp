#include "Platform/Foundation/Error.h"

#include <fmt/format.h>

#include <system_error>

#include "Platform/Base/Counted.h"
#include "Platform/Base/NeverDestroyed.h"

namespace skelda::platform {
namespace {

constexpr std::string_view kDescriptionKey = "NSLocalizedDescription";

}  // namespace

ErrorDomain makeErrorDomain(std::string_view text) {
  return makeCounted<const std::string>(text);
}

Error::Error(ErrorDomain domain, std::int64_t code, Value userInfo)
    : domain_(domain != nullptr ? std::move(domain) : makeErrorDomain({})),
      code_(code),
      userInfo_(std::move(userInfo)) {}

std::string Error::localizedDescription() const {
  if (const Dictionary* const info = userInfo_.dictionary()) {
    const Value* const text = info->find(kDescriptionKey);
    if (text != nullptr && text->text() != nullptr) return *text->text();
  }
  return fmt::format("The operation could not be completed. ({} error {}.)", domain(), code_);
}

std::string Error::description() const {
  return fmt::format("Error Domain={} Code={} \"{}\"", domain(), code_, localizedDescription());
}

std::string description(const ErrorRef& error) {
  return error != nullptr ? error->description() : "(null)";
}

const ErrorDomain& posixErrorDomain() {
  // Never destroyed: an error may outlive every other static.
  static NeverDestroyed<ErrorDomain> domain(makeErrorDomain("NSPOSIXErrorDomain"));
  return *domain;
}

const ErrorDomain& cocoaErrorDomain() {
  static NeverDestroyed<ErrorDomain> domain(makeErrorDomain("NSCocoaErrorDomain"));
  return *domain;
}

ErrorRef posixError(int code, std::string_view path) {
  std::string text = std::generic_category().message(code);
  Dictionary info;
  if (!path.empty()) {
    text = fmt::format("{}: {}", path, text);
    info.append("NSFilePath", path);
  }
  info.append(std::string(kDescriptionKey), std::move(text));
  return makeCounted<const Error>(posixErrorDomain(), code, Value(std::move(info)));
}

}  // namespace skelda::platform
