#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Foundation/Object.h"

namespace skelda::platform {

/// What the registry knows of a class. `factory` is the class's own factory (for a source,
/// getSourceInstance; for a data provider, getInstance); empty for a class that nobody makes by
/// name.
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
  ~ClassRegistry();

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
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace skelda::platform
