#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Foundation/Data.h"

namespace skelda::platform {

/// RFC 4648, section 4, with padding and without line breaks.
std::string base64Encoded(std::string_view bytes);
/// Nothing for text that is not base64; line breaks are not accepted.
std::optional<Data> base64Decoded(std::string_view text);

/// Two digits, 0 to 9 and a to f, for each byte.
std::string hexadecimal(std::string_view bytes);

/// Whether the bytes are well-formed UTF-8 (no surrogates, nothing over-long).
bool isValidUTF8(std::string_view bytes) noexcept;

/// 64-bit FNV-1a: the hash of texts that land in file names and keys. Never changes. `before` is
/// the hash of what stands in front of the text.
std::uint64_t stableHash(std::string_view text,
                         std::uint64_t before = 0xCBF29CE484222325U) noexcept;

}  // namespace skelda::platform
