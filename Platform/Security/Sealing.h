#pragma once

#include <array>
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

/// The bytes of a key, which are wiped when it goes. One thread at a time.
class SealingKey {
 public:
  static constexpr std::size_t kLength = 32;

  SealingKey() = default;
  ~SealingKey();
  SealingKey(const SealingKey&) = delete;
  SealingKey& operator=(const SealingKey&) = delete;

  std::string_view view() const noexcept { return {bytes_.data(), bytes_.size()}; }
  /// False where there are not that many.
  bool assign(std::string_view bytes) noexcept;
  /// Random bytes; false where there are none to be had.
  bool makeRandom() noexcept;
  /// Becomes another key, made of itself and `info` by HKDF-SHA-256; false where the library
  /// refuses.
  bool derive(std::string_view info);

 private:
  std::array<char, kLength> bytes_{};
};

/// Overwrites what the text holds, in a way that no compiler leaves out.
void wipe(std::string& text) noexcept;

// AES-256-GCM. `context` is authenticated, not encrypted: what was sealed in one context does not
// open in another. Nothing where the library refuses or, opening, where key, context, nonce or
// bytes are not the ones of the sealing. Any thread.
std::optional<Sealed> seal(const SealingKey& key, std::string_view plain, std::string_view context);
std::optional<std::string> unseal(const SealingKey& key, const Sealed& sealed,
                                  std::string_view context);

}  // namespace skelda::platform
