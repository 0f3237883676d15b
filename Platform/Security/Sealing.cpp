#include "Platform/Security/Sealing.h"

#include <openssl/core_names.h>
#include <openssl/crypto.h>
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

std::optional<Sealed> seal(const SealingKey& key, std::string_view plain,
                           std::string_view context) {
  if (!fits(plain) || !fits(context)) return std::nullopt;
  Sealed sealed{std::string(kNonceLength, '\0'), std::string(plain.size() + kTagLength, '\0')};
  const Cipher cipher(EVP_CIPHER_CTX_new());
  int length = 0;
  int last = 0;
  if (RAND_bytes(bytesOf(sealed.nonce), kNonceLength) != 1 || !cipher ||
      EVP_EncryptInit_ex(cipher.get(), EVP_aes_256_gcm(), nullptr, bytesOf(key.view()),
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

std::optional<std::string> unseal(const SealingKey& key, const Sealed& sealed,
                                  std::string_view context) {
  if (sealed.nonce.size() != kNonceLength || sealed.bytes.size() < kTagLength ||
      !fits(sealed.bytes) || !fits(context)) {
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
      EVP_DecryptInit_ex(cipher.get(), EVP_aes_256_gcm(), nullptr, bytesOf(key.view()),
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

SealingKey::~SealingKey() {
  OPENSSL_cleanse(bytes_.data(), bytes_.size());
}

bool SealingKey::assign(std::string_view bytes) noexcept {
  if (bytes.size() != kLength) return false;
  bytes.copy(bytes_.data(), kLength);
  return true;
}

bool SealingKey::makeRandom() noexcept {
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes_.data()), kLength) == 1) return true;
  refused();
  return false;
}

bool SealingKey::derive(std::string_view info) {
  const std::unique_ptr<EVP_KDF, Free> kdf(EVP_KDF_fetch(nullptr, "HKDF", nullptr));
  const std::unique_ptr<EVP_KDF_CTX, Free> context(kdf ? EVP_KDF_CTX_new(kdf.get()) : nullptr);
  std::string digest = "SHA256";
  std::string purpose(info);
  const OSSL_PARAM parameters[] = {
      OSSL_PARAM_construct_utf8_string(OSSL_KDF_PARAM_DIGEST, digest.data(), digest.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_KEY, bytes_.data(), bytes_.size()),
      OSSL_PARAM_construct_octet_string(OSSL_KDF_PARAM_INFO, purpose.data(), purpose.size()),
      OSSL_PARAM_construct_end()};
  SealingKey made;
  if (!context ||
      EVP_KDF_derive(context.get(), reinterpret_cast<unsigned char*>(made.bytes_.data()), kLength,
                     parameters) != 1) {
    refused();
    return false;
  }
  return assign(made.view());
}

void wipe(std::string& text) noexcept {
  OPENSSL_cleanse(text.data(), text.size());
}

}  // namespace skelda::platform
