#include "Platform/Security/Sealing.h"

#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/kdf.h>
#include <openssl/params.h>
#include <openssl/rand.h>

#include <limits>
#include <memory>

namespace skelda::platform {

namespace {

constexpr std::size_t kNonceLength = 12;
constexpr std::size_t kTagLength = 16;

struct Free {
  void operator()(EVP_CIPHER_CTX* context) const { EVP_CIPHER_CTX_free(context); }
  void operator()(EVP_KDF* kdf) const { EVP_KDF_free(kdf); }
  void operator()(EVP_KDF_CTX* context) const { EVP_KDF_CTX_free(context); }
};
using Cipher = std::unique_ptr<EVP_CIPHER_CTX, Free>;

unsigned char* bytesOf(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}
const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

/// The library counts in int; a value as long as that is no small secret.
bool fits(std::string_view text) {
  return text.size() <= static_cast<std::size_t>(std::numeric_limits<int>::max()) - kTagLength;
}
int lengthOf(std::string_view text) {
  return static_cast<int>(text.size());
}

/// Leaves no message behind for others who use the library on this thread.
std::nullopt_t refused() {
  ERR_clear_error();
  return std::nullopt;
}

}  // namespace

std::optional<Sealed> seal(std::string_view key, std::string_view plain, std::string_view context) {
  if (key.size() != kSealingKeyLength || !fits(plain) || !fits(context)) return std::nullopt;
  Sealed sealed{randomBytes(kNonceLength), std::string(plain.size() + kTagLength, '\0')};
  const Cipher cipher(EVP_CIPHER_CTX_new());
  int length = 0;
  int last = 0;
  if (sealed.nonce.empty() || !cipher ||
      EVP_EncryptInit_ex(cipher.get(), EVP_aes_256_gcm(), nullptr, bytesOf(key),
                         bytesOf(sealed.nonce)) != 1 ||
      EVP_EncryptUpdate(cipher.get(), nullptr, &length, bytesOf(context), lengthOf(context)) != 1 ||
      EVP_EncryptUpdate(cipher.get(), bytesOf(sealed.bytes), &length, bytesOf(plain),
                        lengthOf(plain)) != 1 ||
      EVP_EncryptFinal_ex(cipher.get(), bytesOf(sealed.bytes) + length, &last) != 1 ||
      EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_GET_TAG, kTagLength,
                          bytesOf(sealed.bytes) + plain.size()) != 1) {
    return refused();
  }
  return sealed;
}

std::optional<std::string> unseal(std::string_view key, const Sealed& sealed,
                                  std::string_view context) {
  if (key.size() != kSealingKeyLength || sealed.nonce.size() != kNonceLength ||
      sealed.bytes.size() < kTagLength || !fits(sealed.bytes) || !fits(context)) {
    return std::nullopt;
  }
  const std::string_view encrypted(sealed.bytes.data(), sealed.bytes.size() - kTagLength);
  std::string tag = sealed.bytes.substr(encrypted.size());
  // One byte of room keeps the library from being handed the address of an empty buffer.
  std::string plain(encrypted.size() + 1, '\0');
  const Cipher cipher(EVP_CIPHER_CTX_new());
  int length = 0;
  int last = 0;
  if (!cipher ||
      EVP_DecryptInit_ex(cipher.get(), EVP_aes_256_gcm(), nullptr, bytesOf(key),
                         bytesOf(sealed.nonce)) != 1 ||
      EVP_DecryptUpdate(cipher.get(), nullptr, &length, bytesOf(context), lengthOf(context)) != 1 ||
      EVP_DecryptUpdate(cipher.get(), bytesOf(plain), &length, bytesOf(encrypted),
                        lengthOf(encrypted)) != 1 ||
      EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_SET_TAG, kTagLength, tag.data()) != 1 ||
      EVP_DecryptFinal_ex(cipher.get(), bytesOf(plain) + length, &last) != 1) {
    return refused();
  }
  plain.resize(encrypted.size());
  return plain;
}

std::string derivedKey(std::string_view key, std::string_view info) {
  const std::unique_ptr<EVP_KDF, Free> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
  const std::unique_ptr<EVP_KDF_CTX, Free> context(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
  std::string digest = "SHA256";
  std::string secret(key);
  std::string purpose(info);
  const OSSL_PARAM parameters[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest.data(), digest.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, secret.data(), secret.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, purpose.data(), purpose.size()),
      OSSL_PARAM_construct_end()};
  std::string made(kSealingKeyLength, '\0');
  const bool done =
      context && EVP_KDF_derive(context.get(), bytesOf(made), made.size(), parameters) == 1;
  OPENSSL_cleanse(secret.data(), secret.size());
  if (!done) {
    refused();
    return {};
  }
  return made;
}

std::string randomBytes(std::size_t count) {
  std::string bytes(count, '\0');
  if (!fits(bytes) || RAND_bytes(bytesOf(bytes), lengthOf(bytes)) != 1) {
    refused();
    return {};
  }
  return bytes;
}

}  // namespace skelda::platform
