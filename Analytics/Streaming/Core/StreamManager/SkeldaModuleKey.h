#pragma once

#include <string>
#include <string_view>

/// What a module is registered under: a class or a protocol, both of which are text in the end. A
/// key made of nothing is neither, and finds nothing.
class SkeldaModuleKey {
 public:
  SkeldaModuleKey() = default;
  static SkeldaModuleKey forClass(std::string_view name) { return SkeldaModuleKey(name); }
  static SkeldaModuleKey forProtocol(std::string_view name) { return SkeldaModuleKey(name); }
  /// Of a type that has kProtocolName or kClassName.
  template <class T>
  static constexpr std::string_view nameOf() noexcept {
    if constexpr (requires { T::kClassName; }) {
      return T::kClassName;
    } else {
      return T::kProtocolName;
    }
  }
  template <class T>
  static SkeldaModuleKey of() {
    return SkeldaModuleKey(nameOf<T>());
  }
  const std::string& text() const noexcept { return text_; }

 private:
  explicit SkeldaModuleKey(std::string_view text) : text_(text) {}
  std::string text_;
};
