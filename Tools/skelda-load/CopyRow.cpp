#include "Tools/skelda-load/CopyRow.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/UTF8.h"
#include "Tools/Shared/PayloadText.h"

namespace skelda::tools {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

/// Whether it stands in a row as it is, for itself.
bool isPlain(std::uint8_t byte) {
  return byte >= ' ' && byte < 0x80 && byte != '\\';
}

void appendCharacter(std::string& out, std::string_view bytes, bool valid) {
  switch (valid ? bytes[0] : '\0') {
    case '\0':
      out += kReplacement;
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\r':
      out += "\\r";
      return;
    default:
      out += bytes;
  }
}

}  // namespace

void CopyRow::separate() {
  if (!isFirst_) out_ += '\t';
  isFirst_ = false;
}

CopyRow& CopyRow::null() {
  separate();
  out_ += "\\N";
  return *this;
}

CopyRow& CopyRow::number(std::int64_t value) {
  separate();
  fmt::format_to(std::back_inserter(out_), "{}", value);
  return *this;
}

CopyRow& CopyRow::text(std::string_view value) {
  separate();
  const auto* at = reinterpret_cast<const std::uint8_t*>(value.data());
  const auto* const end = at + value.size();
  while (at != end) {
    const auto* const plain = at;
    at = std::find_if_not(at, end, isPlain);
    out_.append(reinterpret_cast<const char*>(plain), static_cast<std::size_t>(at - plain));
    if (at == end) break;
    const platform::UTF8Step step = platform::nextUTF8(at, end);
    appendCharacter(out_, {reinterpret_cast<const char*>(at), step.length}, step.valid);
    at += step.length;
  }
  return *this;
}

CopyRow& CopyRow::time(std::int64_t milliseconds) {
  const std::string shown = wallClockText(milliseconds);
  return shown.ends_with('Z') ? text(shown) : null();
}

CopyRow& CopyRow::number(const platform::Value* value) {
  return value != nullptr && value->isNumber() ? number(value->integerValue()) : null();
}

CopyRow& CopyRow::boolean(const platform::Value* value) {
  if (value == nullptr || value->boolean() == nullptr) return null();
  return text(*value->boolean() ? "t" : "f");
}

CopyRow& CopyRow::text(const platform::Value* value) {
  return value != nullptr && value->text() != nullptr ? text(*value->text()) : null();
}

CopyRow& CopyRow::json(const platform::Value* value) {
  if (value == nullptr) return null();
  // The one character that JSON may hold and jsonb may not. A backslash stands before one other
  // character, so that steps of two do not take the second of a pair for the first.
  std::string json = platform::jsonText(*value);
  for (std::size_t at = json.find('\\'); at != std::string::npos; at = json.find('\\', at + 2)) {
    if (json.compare(at, 6, "\\u0000") == 0) json.replace(at, 6, "\\ufffd");
  }
  return text(json);
}

}  // namespace skelda::tools
