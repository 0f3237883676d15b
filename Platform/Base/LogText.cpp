#include "Platform/Base/LogText.h"

#include <fmt/format.h>
#include <unistd.h>

namespace skelda::platform {
namespace {

bool isControl(std::string_view line, std::size_t at) {
  const auto byte = static_cast<unsigned char>(line[at]);
  if (byte < 0x20 || byte == 0x7F) return true;
  // U+0080 to U+009F, some of which end lines or steer terminals.
  return byte == 0xC2 && at + 1 < line.size() && static_cast<unsigned char>(line[at + 1]) < 0xA0;
}

void appendSpelledOut(std::string& out, char c) {
  switch (c) {
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    case '\t':
      out += "\\t";
      return;
    default:
      out += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
  }
}

void appendEscaped(std::string& out, std::string_view line) {
  for (std::size_t at = 0; at < line.size(); ++at) {
    if (!isControl(line, at)) {
      out += line[at];
      continue;
    }
    appendSpelledOut(out, line[at]);
    // The second byte of a two-byte control character goes with the first.
    if (static_cast<unsigned char>(line[at]) == 0xC2) appendSpelledOut(out, line[++at]);
  }
}

}  // namespace

std::string escapedLogLine(std::string_view line) {
  std::string text;
  text.reserve(line.size());
  appendEscaped(text, line);
  return text;
}

std::string prefixedLogLine(const timespec& when, std::string_view line) {
  tm parts{};
  gmtime_r(&when.tv_sec, &parts);
  // Not format_to(), which would bring the formatting of every kind of number into the library.
  std::string text = fmt::format(
      "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z [{}] ", parts.tm_year + 1900, parts.tm_mon + 1,
      parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec, when.tv_nsec / 1000000, ::getpid());
  text.reserve(text.size() + line.size() + 1);
  appendEscaped(text, line);
  text += '\n';
  return text;
}

}  // namespace skelda::platform
