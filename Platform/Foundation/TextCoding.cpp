#include "Platform/Foundation/TextCoding.h"

#include <array>

#include "Platform/Foundation/UTF8.h"

namespace skelda::platform {
namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::uint8_t kNotBase64 = 0xFF;

constexpr auto kDigits = [] {
  std::array<std::uint8_t, 256> digits{};
  digits.fill(kNotBase64);
  for (std::size_t i = 0; i < kAlphabet.size(); ++i)
    digits[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::uint8_t>(i);
  return digits;
}();

std::uint32_t digit(char c) {
  return kDigits[static_cast<unsigned char>(c)];
}

}  // namespace

std::string base64Encoded(std::string_view bytes) {
  std::string text((bytes.size() + 2) / 3 * 4, '=');
  const auto* in = reinterpret_cast<const std::uint8_t*>(bytes.data());
  char* out = text.data();
  std::size_t left = bytes.size();
  for (; left >= 3; left -= 3, in += 3, out += 4) {
    const std::uint32_t group = std::uint32_t{in[0]} << 16 | std::uint32_t{in[1]} << 8 | in[2];
    out[0] = kAlphabet[group >> 18];
    out[1] = kAlphabet[group >> 12 & 63];
    out[2] = kAlphabet[group >> 6 & 63];
    out[3] = kAlphabet[group & 63];
  }
  if (left == 0) return text;
  const std::uint32_t group =
      std::uint32_t{in[0]} << 16 | (left == 2 ? std::uint32_t{in[1]} << 8 : 0);
  out[0] = kAlphabet[group >> 18];
  out[1] = kAlphabet[group >> 12 & 63];
  if (left == 2) out[2] = kAlphabet[group >> 6 & 63];
  return text;
}

std::optional<Data> base64Decoded(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  if (text.empty()) return Data();
  const std::size_t padding = text.back() != '=' ? 0U : text[text.size() - 2] != '=' ? 1U : 2U;
  const std::string_view digits = text.substr(0, text.size() - padding);
  std::string bytes(text.size() / 4 * 3 - padding, '\0');
  std::size_t out = 0;
  std::uint32_t group = 0;
  for (std::size_t i = 0; i < digits.size(); ++i) {
    const std::uint32_t value = digit(digits[i]);
    if (value == kNotBase64) return std::nullopt;
    group = group << 6 | value;
    if (i % 4 != 3) continue;
    bytes[out++] = static_cast<char>(group >> 16 & 0xFF);
    bytes[out++] = static_cast<char>(group >> 8 & 0xFF);
    bytes[out++] = static_cast<char>(group & 0xFF);
    group = 0;
  }
  // Bits that no byte takes must be 0: one sequence of bytes has one text.
  if (padding == 1) {
    if ((group & 3) != 0) return std::nullopt;
    bytes[out++] = static_cast<char>(group >> 10 & 0xFF);
    bytes[out++] = static_cast<char>(group >> 2 & 0xFF);
  } else if (padding == 2) {
    if ((group & 15) != 0) return std::nullopt;
    bytes[out++] = static_cast<char>(group >> 4 & 0xFF);
  }
  return Data(std::move(bytes));
}

std::string hexadecimal(std::string_view bytes) {
  static constexpr char kHexadecimal[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char byte : bytes) {
    text += kHexadecimal[static_cast<unsigned char>(byte) >> 4];
    text += kHexadecimal[static_cast<unsigned char>(byte) & 0x0F];
  }
  return text;
}

bool isValidUTF8(std::string_view bytes) noexcept {
  constexpr std::uint64_t kHighBits = 0x8080808080808080U;
  const auto* at = reinterpret_cast<const std::uint8_t*>(bytes.data());
  const std::uint8_t* const end = at + bytes.size();
  while (at != end) {
    while (end - at >= 8 && (loadWord(at) & kHighBits) == 0) at += 8;
    if (at == end) break;
    const UTF8Step step = nextUTF8(at, end);
    if (!step.valid) return false;
    at += step.length;
  }
  return true;
}

std::uint64_t stableHash(std::string_view text, std::uint64_t before) noexcept {
  std::uint64_t hash = before;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 0x100000001B3U;
  }
  return hash;
}

}  // namespace skelda::platform
