#include "Platform/Foundation/ClassRegistry.h"

#include <algorithm>
#include <map>

#include "Platform/Base/Mutex.h"
#include "Platform/Base/NeverDestroyed.h"

namespace skelda::platform {

struct ClassRegistry::State {
  Mutex mutex;
  std::map<std::string, ClassDescription, std::less<>> classes GUARDED_BY(mutex);

  /// Whether `accept` holds for the class or one above it.
  template <class Accept>
  bool anyInChain(std::string_view name, Accept accept) const REQUIRES(mutex) {
    // A chain that is longer than there are classes goes in a circle.
    for (std::size_t steps = 0; steps <= classes.size(); ++steps) {
      const auto found = classes.find(name);
      if (found == classes.end()) return false;
      if (accept(found->second)) return true;
      name = found->second.superclass;
    }
    return false;
  }
};

ClassRegistry::ClassRegistry() : state_(std::make_unique<State>()) {}
ClassRegistry::~ClassRegistry() = default;

ClassRegistry& ClassRegistry::shared() {
  // Never destroyed: classes are looked up until the last instant of the process.
  static NeverDestroyed<ClassRegistry> registry([] { return ClassRegistry(); });
  return *registry;
}

void ClassRegistry::registerClass(ClassDescription description) {
  std::string name = description.name;
  const MutexLock lock(state_->mutex);
  state_->classes.insert_or_assign(std::move(name), std::move(description));
}

bool ClassRegistry::hasClass(std::string_view name) const {
  const MutexLock lock(state_->mutex);
  return state_->classes.find(name) != state_->classes.end();
}

ClassDescription ClassRegistry::find(std::string_view name) const {
  const MutexLock lock(state_->mutex);
  const auto found = state_->classes.find(name);
  return found != state_->classes.end() ? found->second : ClassDescription{};
}

bool ClassRegistry::isSubclass(std::string_view name, std::string_view ancestor) const {
  const MutexLock lock(state_->mutex);
  return state_->anyInChain(name, [ancestor](const ClassDescription& description) {
    return description.name == ancestor || description.superclass == ancestor;
  });
}

bool ClassRegistry::classConforms(std::string_view name, std::string_view protocol) const {
  const MutexLock lock(state_->mutex);
  return state_->anyInChain(name, [protocol](const ClassDescription& description) {
    const auto& protocols = description.protocols;
    return std::find(protocols.begin(), protocols.end(), protocol) != protocols.end();
  });
}

ObjectRef ClassRegistry::make(std::string_view name) const {
  // Outside the lock: a factory may register or look up classes itself.
  const ClassDescription description = find(name);
  return description.factory ? description.factory() : nullptr;
}

}  // namespace skelda::platform
