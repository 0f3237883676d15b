#include "Platform/Security/CryptographyLifetime.h"

#include <openssl/crypto.h>

namespace skelda::platform {

void keepCryptographyUntilTheEnd() noexcept {
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
}

}  // namespace skelda::platform
