#pragma once

#include <string>
#include <string_view>

namespace skelda::platform {

/// HMAC-SHA-256 of `message` under `key`, 32 bytes; empty where the library refuses. With a secret
/// key the message's hash tells nothing of the key. Any thread.
std::string hmacSHA256(std::string_view key, std::string_view message);

/// SHA-256 of `message`, 32 bytes; empty where the library refuses.
std::string sha256(std::string_view message);

}  // namespace skelda::platform
