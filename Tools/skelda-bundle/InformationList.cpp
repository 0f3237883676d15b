#include "Tools/skelda-bundle/InformationList.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <optional>

#include "Platform/Foundation/TextCoding.h"

namespace skelda::tools {
namespace {

using SkeldaHostSettings::Kind;
using SkeldaHostSettings::Setting;

std::optional<long> numberIn(const std::string& text) {
  long number = 0;
  const char* const end = text.data() + text.size();
  const auto read = std::from_chars(text.data(), end, number);
  return read.ec == std::errc() && read.ptr == end ? std::optional(number) : std::nullopt;
}

/// XML has no way to write the others.
bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
}

std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (c == '&') {
      out += "&amp;";
    } else if (c == '<') {
      out += "&lt;";
    } else if (c == '>') {
      out += "&gt;";
    } else {
      out += c;
    }
  }
  return out;
}

}  // namespace

std::string optionOf(const Setting& setting) {
  if (setting.key == SkeldaHostSettings::kAPIKey.key) return "--key";
  std::string_view rest = setting.key;
  for (const std::string_view prefix : {"Skelda ", "Watch "}) {
    if (rest.starts_with(prefix)) rest.remove_prefix(prefix.size());
  }
  std::string option = "--";
  for (const char c : rest) {
    option += c == ' ' ? '-' : c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
  }
  return option;
}

std::string problemOf(const Setting& setting, const std::string& text) {
  if (setting.kind != Kind::number) {
    const bool isXML = platform::isValidUTF8(text) && std::ranges::none_of(text, isControl);
    if (!isXML) return "is no text that an Info.plist can hold";
    return text.empty() ? "is empty" : "";
  }
  const auto number = numberIn(text);
  if (number && *number >= setting.least && *number <= setting.most) return {};
  return fmt::format("is no number from {} to {}", setting.least, setting.most);
}

void InformationList::add(std::string_view key, std::string_view kind, std::string_view text) {
  entries_ +=
      fmt::format("\t<key>{0}</key>\n\t<{1}>{2}</{1}>\n", escaped(key), kind, escaped(text));
}

void InformationList::addText(std::string_view key, std::string_view text) {
  add(key, "string", text);
}

void InformationList::add(const Setting& setting, const std::string& text) {
  add(setting.key, setting.kind == Kind::number ? "integer" : "string", text);
}

std::string InformationList::xml() const {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n" +
         entries_ + "</dict>\n</plist>\n";
}

}  // namespace skelda::tools
