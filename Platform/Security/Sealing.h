#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace skelda::platform {

/// What sealing makes: a nonce that is never used again under the key, and the encrypted bytes with
/// their authentication tag (16 bytes) at the end.
struct Sealed {
  std::string nonce;
  std::string bytes;
};

inline constexpr std::size_t kSealingKeyLength = 32;

// AES-256-GCM. Keys are kSealingKeyLength bytes. `context` is authenticated, not encrypted: what
// was sealed in one context does not open in another. Nothing where the library refuses or,
// opening, where key, context, nonce or bytes are not the ones of the sealing. Any thread.
std::optional<Sealed> seal(std::string_view key, std::string_view plain, std::string_view context);
std::optional<std::string> unseal(std::string_view key, const Sealed& sealed,
                                  std::string_view context);

/// Another key made of `key` and `info` by HKDF-SHA-256; empty where the library refuses.
std::string derivedKey(std::string_view key, std::string_view info);
/// So many random bytes; empty where there are none to be had.
std::string randomBytes(std::size_t count);

}  // namespace skelda::platform
