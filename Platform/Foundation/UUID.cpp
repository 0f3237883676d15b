#include "Platform/Foundation/UUID.h"

#include <uuid/uuid.h>

namespace skelda::platform {

std::string newUUIDString() {
  uuid_t bytes;
  uuid_generate_random(bytes);
  char text[UUID_STR_LEN];
  uuid_unparse_upper(bytes, text);
  return text;
}

}  // namespace skelda::platform
