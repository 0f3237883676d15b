#include "Platform/Foundation/Object.h"

#include "Platform/Foundation/ClassRegistry.h"

namespace skelda::platform {

bool Object::conformsToProtocol(std::string_view protocol) const {
  return ClassRegistry::shared().classConforms(className(), protocol);
}

}  // namespace skelda::platform
