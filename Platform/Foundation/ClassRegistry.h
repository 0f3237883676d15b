#pragma once

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Foundation/Object.h"

namespace skelda::platform {

/// What the registry knows of a class. `factory` is the class's own factory (for a source,
/// getSourceInstance; for a data provider, getInstance); `selectors` are class methods that can be
/// asked for by name, and may be empty.
struct ClassDescription {
  std::string name;
  std::string superclass;
  std::vector<std::string> protocols;
  std::function<ObjectRef()> factory;
};

/// Finds classes and protocols by text. Process-wide, never destroyed, usable from static
/// initialisers; every operation is safe from any thread. Registering a name again replaces it.
class ClassRegistry {
 public:
  static ClassRegistry& shared();

  void registerClass(ClassDescription description);
  bool hasClass(std::string_view name) const;
  /// A copy of what is known, with an empty name where the class is absent.
  ClassDescription find(std::string_view name) const;
  bool isSubclass(std::string_view name, std::string_view ancestor) const;
  /// Along the chain of superclasses.
  bool classConforms(std::string_view name, std::string_view protocol) const;
  /// Calls the factory; null where there is no class or no factory.
  ObjectRef make(std::string_view name) const;

 private:
  ClassRegistry();
  ~ClassRegistry();
  struct State;
  State* state_;
};

}  // namespace skelda::platform
