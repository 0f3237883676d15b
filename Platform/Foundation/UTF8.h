#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace skelda::platform {

/// One step through UTF-8: how many bytes stand together, and whether they are a character. For
/// bytes that are none, `length` is their longest prefix that could have become one (at least 1),
/// which is what one U+FFFD stands for.
struct UTF8Step {
  std::size_t length;
  bool valid;
};

/// `at` is before `end`.
inline UTF8Step nextUTF8(const std::uint8_t* at, const std::uint8_t* end) noexcept {
  const std::uint8_t lead = *at;
  if (lead < 0x80) return {1, true};
  if (lead < 0xC2 || lead > 0xF4) return {1, false};
  const std::size_t length = lead < 0xE0 ? 2U : lead < 0xF0 ? 3U : 4U;
  // The second byte is where over-long forms, surrogates and code points past U+10FFFF are told.
  std::uint8_t low = 0x80;
  std::uint8_t high = 0xBF;
  if (lead == 0xE0) low = 0xA0;
  if (lead == 0xED) high = 0x9F;
  if (lead == 0xF0) low = 0x90;
  if (lead == 0xF4) high = 0x8F;
  for (std::size_t i = 1; i < length; ++i) {
    if (at + i == end || at[i] < low || at[i] > high) return {i, false};
    low = 0x80;
    high = 0xBF;
  }
  return {length, true};
}

/// Eight bytes as one word, to look at them together. Only for questions that do not depend on the
/// order of the bytes.
inline std::uint64_t loadWord(const void* bytes) noexcept {
  std::uint64_t word = 0;
  std::memcpy(&word, bytes, sizeof word);
  return word;
}

}  // namespace skelda::platform
