#include "Platform/Foundation/JSONWriter.h"

#include <array>
#include <charconv>
#include <cmath>
#include <utility>

#include "Platform/Foundation/NumberText.h"
#include "Platform/Foundation/TextCoding.h"
#include "Platform/Foundation/UTF8.h"

namespace skelda::platform {
namespace {

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
constexpr std::size_t kIndent = 4;

/// Whether any of the eight bytes is a control character, a quote, a backslash, or not ASCII. May
/// say so wrongly for none: it is exact where it says no.
bool hasSpecialByte(std::uint64_t word) {
  constexpr std::uint64_t kOnes = 0x0101010101010101U;
  constexpr std::uint64_t kHighs = 0x8080808080808080U;
  const std::uint64_t quote = word ^ (kOnes * '"');
  const std::uint64_t backslash = word ^ (kOnes * '\\');
  return ((word | (word - kOnes * 0x20) | (quote - kOnes) | (backslash - kOnes)) & kHighs) != 0;
}

bool isPlain(std::uint8_t byte) {
  return byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\';
}

/// Whether the whole text may be written as it stands. May say so wrongly for no.
bool isPlain(std::string_view text) {
  const char* at = text.data();
  const char* const end = at + text.size();
  if (text.size() < 8) {
    while (at != end && isPlain(static_cast<std::uint8_t>(*at))) ++at;
    return at == end;
  }
  for (; end - at > 8; at += 8)
    if (hasSpecialByte(loadWord(at))) return false;
  // The last word overlaps the one before.
  return !hasSpecialByte(loadWord(end - 8));
}

const std::uint8_t* skipPlain(const std::uint8_t* at, const std::uint8_t* end) {
  while (end - at >= 8 && !hasSpecialByte(loadWord(at))) at += 8;
  while (at != end && isPlain(*at)) ++at;
  return at;
}

void appendEscaped(std::string& out, std::uint8_t byte) {
  switch (byte) {
    case '"':
      out += "\\\"";
      return;
    case '\\':
      out += "\\\\";
      return;
    case '\b':
      out += "\\b";
      return;
    case '\t':
      out += "\\t";
      return;
    case '\n':
      out += "\\n";
      return;
    case '\f':
      out += "\\f";
      return;
    case '\r':
      out += "\\r";
      return;
    default:
      constexpr std::string_view kHex = "0123456789abcdef";
      out += "\\u00";
      out += kHex[byte >> 4];
      out += kHex[byte & 15];
  }
}

void appendEscapedText(std::string& out, std::string_view text) {
  const auto* at = reinterpret_cast<const std::uint8_t*>(text.data());
  const std::uint8_t* const end = at + text.size();
  while (true) {
    const std::uint8_t* const stop = skipPlain(at, end);
    out.append(reinterpret_cast<const char*>(at), static_cast<std::size_t>(stop - at));
    at = stop;
    if (at == end) return;
    if (*at < 0x80) {
      appendEscaped(out, *at++);
      continue;
    }
    const UTF8Step step = nextUTF8(at, end);
    if (step.valid)
      out.append(reinterpret_cast<const char*>(at), step.length);
    else
      out += kReplacement;
    at += step.length;
  }
}

/// Room for nearly all texts, with the signs around them.
constexpr std::size_t kShortText = 60;
using ShortText = std::array<char, kShortText + 4>;

/// With quotes, at `to`; how long that is. Only of a plain text that is short.
std::size_t quote(std::string_view text, char* to) {
  to[0] = to[text.size() + 1] = '"';
  text.copy(to + 1, text.size());
  return text.size() + 2;
}

bool isShortAndPlain(std::string_view text) {
  return text.size() <= kShortText && isPlain(text);
}

[[gnu::noinline]] void appendEscapedQuoted(std::string& out, std::string_view text) {
  out += '"';
  appendEscapedText(out, text);
  out += '"';
}

void appendQuoted(std::string& out, std::string_view text) {
  if (!isShortAndPlain(text)) return appendEscapedQuoted(out, text);
  ShortText whole;
  out.append(whole.data(), quote(text, whole.data()));
}

template <class Integer>
void appendInteger(std::string& out, Integer value) {
  char text[kNumberTextCapacity];
  const auto result = std::to_chars(text, text + sizeof text, value);
  out.append(text, result.ptr);
}

template <class Real>
void appendReal(std::string& out, Real value) {
  if (!std::isfinite(value)) {
    out += "null";
    return;
  }
  char text[kNumberTextCapacity];
  out.append(text, writeReal(text, value));
}

}  // namespace

JSONWriter::JSONWriter(std::string& out, bool pretty) : out_(out), pretty_(pretty) {}

void JSONWriter::newline() {
  out_ += '\n';
  out_.append(depth_ * kIndent, ' ');
}

void JSONWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (needsComma_) out_ += ',';
  if (pretty_ && depth_ > 0) newline();
  needsComma_ = true;
}

void JSONWriter::begin(char bracket) {
  separate();
  out_ += bracket;
  ++depth_;
  needsComma_ = false;
}

void JSONWriter::end(char bracket) {
  --depth_;
  // Nothing was written since the bracket opened: an empty container stays on its line.
  if (pretty_ && needsComma_) newline();
  out_ += bracket;
  needsComma_ = true;
}

void JSONWriter::beginObject() {
  begin('{');
}
void JSONWriter::endObject() {
  end('}');
}
void JSONWriter::beginArray() {
  begin('[');
}
void JSONWriter::endArray() {
  end(']');
}

void JSONWriter::key(std::string_view name) {
  if (!pretty_ && isShortAndPlain(name)) {
    // Nearly all: appended at once.
    ShortText whole;
    std::size_t length = 0;
    if (std::exchange(needsComma_, true)) whole[length++] = ',';
    length += quote(name, whole.data() + length);
    whole[length++] = ':';
    out_.append(whole.data(), length);
  } else {
    separate();
    appendEscapedQuoted(out_, name);
    out_.append(pretty_ ? ": " : ":");
  }
  afterKey_ = true;
}

void JSONWriter::null() {
  separate();
  out_ += "null";
}

void JSONWriter::boolean(bool value) {
  separate();
  out_ += value ? "true" : "false";
}

void JSONWriter::integer(std::int64_t value) {
  separate();
  appendInteger(out_, value);
}

void JSONWriter::unsignedInteger(std::uint64_t value) {
  separate();
  appendInteger(out_, value);
}

void JSONWriter::real(double value) {
  separate();
  appendReal(out_, value);
}

void JSONWriter::real32(float value) {
  separate();
  appendReal(out_, value);
}

void JSONWriter::text(std::string_view value) {
  separate();
  appendQuoted(out_, value);
}

void JSONWriter::value(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::null:
      return null();
    case Value::Kind::boolean:
      return boolean(*value.boolean());
    case Value::Kind::integer:
      return integer(value.integerValue());
    case Value::Kind::unsignedInteger:
      return unsignedInteger(value.unsignedValue());
    case Value::Kind::real:
      return real(value.doubleValue());
    case Value::Kind::real32:
      return real32(static_cast<float>(value.doubleValue()));
    case Value::Kind::text:
      return text(*value.text());
    case Value::Kind::data:
      return text(base64Encoded(value.data()->view()));
    case Value::Kind::date:
      return integer(value.date()->microsecondsSince1970().count() / 1000);
    case Value::Kind::array:
      beginArray();
      for (const Value& element : *value.array()) this->value(element);
      return endArray();
    case Value::Kind::dictionary:
      beginObject();
      for (const auto& [name, element] : *value.dictionary()) {
        key(name);
        this->value(element);
      }
      return endObject();
  }
}

std::string jsonText(const Value& value, bool pretty) {
  std::string text;
  text.reserve(256);
  JSONWriter(text, pretty).value(value);
  return text;
}

}  // namespace skelda::platform
