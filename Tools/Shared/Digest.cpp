#include "Tools/Shared/Digest.h"

#include <stdexcept>

#include "Platform/Foundation/TextCoding.h"
#include "Platform/Security/Digest.h"

namespace skelda::tools {

std::string digestOf(std::string_view bytes) {
  const std::string digest = platform::sha256(bytes);
  if (digest.empty()) throw std::runtime_error("no SHA-256");
  return platform::hexadecimal(digest);
}

}  // namespace skelda::tools
