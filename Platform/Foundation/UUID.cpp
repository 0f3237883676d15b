#include "Platform/Foundation/UUID.h"

#include <sys/random.h>
#include <uuid/uuid.h>

namespace skelda::platform {

std::string newUUIDString() {
  uuid_t bytes;
  if (::getrandom(bytes, sizeof bytes, GRND_NONBLOCK) == sizeof bytes) {
    bytes[6] = static_cast<unsigned char>((bytes[6] & 0x0F) | 0x40);  // version 4: random
    bytes[8] = static_cast<unsigned char>((bytes[8] & 0x3F) | 0x80);
  } else {
    // Early in a boot, from what there is: six system calls, one of them in vain.
    uuid_generate_random(bytes);
  }
  char text[UUID_STR_LEN];
  uuid_unparse_upper(bytes, text);
  return text;
}

}  // namespace skelda::platform
