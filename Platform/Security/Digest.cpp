#include "Platform/Security/Digest.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>

namespace skelda::platform {

namespace {

/// The library's error queue belongs to the thread, and others read it.
std::string digestOrNothing(bool made, std::string digest, unsigned length) {
  if (!made) {
    ERR_clear_error();
    return {};
  }
  digest.resize(length);
  return digest;
}

}  // namespace

std::string hmacSHA256(std::string_view key, std::string_view message) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned length = 0;
  const bool made = HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
                         reinterpret_cast<const unsigned char*>(message.data()), message.size(),
                         reinterpret_cast<unsigned char*>(digest.data()), &length) != nullptr;
  return digestOrNothing(made, std::move(digest), length);
}

std::string sha256(std::string_view message) {
  std::string digest(EVP_MAX_MD_SIZE, '\0');
  unsigned length = 0;
  const bool made =
      EVP_Digest(message.data(), message.size(), reinterpret_cast<unsigned char*>(digest.data()),
                 &length, EVP_sha256(), nullptr) == 1;
  return digestOrNothing(made, std::move(digest), length);
}

}  // namespace skelda::platform
