#pragma once

#include "Tests/Support/Testing.h"

namespace skelda::testing {

inline std::string document(const std::string& name) {
  return readFile(std::string(SKELDA_DOCS_FOLDER) + "/" + name);
}

/// What stands there between "```info" and the next "```"; empty where there is no such block.
inline std::string fencedBlock(const std::string& name, const std::string& info) {
  const std::string text = document(name);
  const std::size_t begin = text.find("```" + info + "\n");
  if (begin == std::string::npos) return {};
  const std::size_t first = text.find('\n', begin) + 1;
  return text.substr(first, text.find("```", first) - first);
}

/// Lines of an offset, the bytes, and the same as text; lines of nothing but zeros are left out.
inline std::string hexDump(std::string_view bytes) {
  std::string dump;
  for (std::size_t line = 0; line < bytes.size(); line += 16) {
    const std::string_view part = bytes.substr(line, 16);
    if (part.find_first_not_of('\0') == std::string_view::npos) continue;
    std::string hex;
    std::string text;
    for (const char c : part) {
      hex += fmt::format(" {:02x}", static_cast<unsigned char>(c));
      text += c >= 0x20 && c < 0x7F ? c : '.';
    }
    dump += fmt::format("{:08x} {:<48}  {}\n", line, hex, text);
  }
  return dump;
}

}  // namespace skelda::testing
