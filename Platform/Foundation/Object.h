#pragma once

#include <memory>
#include <string_view>

namespace skelda::platform {

/// The root of the classes that are found by name: knows its class name, and through the class
/// registry its superclasses and protocols.
class Object {
 public:
  virtual std::string_view className() const noexcept = 0;
  /// Whether the class, or one it derives from, is registered with that protocol.
  virtual bool conformsToProtocol(std::string_view protocol) const;

 protected:
  ~Object() = default;
};

using ObjectRef = std::shared_ptr<Object>;

}  // namespace skelda::platform
