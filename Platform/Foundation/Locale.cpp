#include "Platform/Foundation/Locale.h"

#include <array>
#include <cstdlib>
#include <string_view>

#include "Platform/Foundation/SmallFile.h"

namespace skelda::platform {
namespace {

/// What decides, first to last.
constexpr std::array<const char*, 3> kVariables = {"LC_ALL", "LC_MESSAGES", "LANG"};
constexpr std::array<std::string_view, 2> kFiles = {"/etc/locale.conf", "/etc/default/locale"};
constexpr std::size_t kMaximumFileSize = std::size_t{64} << 10;
constexpr std::string_view kBlanks = " \t\r";

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

std::string lowered(std::string_view letters) {
  std::string text(letters);
  for (char& c : text) c = static_cast<char>(c | 0x20);
  return text;
}

std::string raised(std::string_view letters) {
  std::string text(letters);
  for (char& c : text)
    if (isLetter(c)) c = static_cast<char>(c & ~0x20);
  return text;
}

std::size_t countLetters(std::string_view text) {
  std::size_t count = 0;
  while (count < text.size() && isLetter(text[count])) ++count;
  return count;
}

/// Two letters of a country or three digits of a region.
bool isCountry(std::string_view part) {
  if (part.size() == 2) return countLetters(part) == 2;
  return part.size() == 3 && part.find_first_not_of("0123456789") == std::string_view::npos;
}

/// Reads "zh_Hans_CN.UTF-8@modifier": a language, and optional script, country, encoding and
/// modifier.
Locale parsed(std::string_view name) {
  Locale locale;
  const std::string_view bare = name.substr(0, name.find_first_of(".@"));
  const std::size_t language = countLetters(bare);
  if (language < 2 || language > 3) return {};
  locale.languageCode = lowered(bare.substr(0, language));
  std::string_view rest = bare.substr(language);
  if (rest.starts_with('_') && countLetters(rest.substr(1)) == 4) rest.remove_prefix(5);
  if (rest.empty()) return locale;
  if (rest[0] != '_' || !isCountry(rest.substr(1))) return {};
  locale.countryCode = raised(rest.substr(1));
  return locale;
}

std::string_view trimmed(std::string_view text) {
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

/// The text assigned to `variable` in a file of shell assignments; the last one holds.
std::string_view assigned(std::string_view file, std::string_view variable) {
  std::string_view value;
  while (!file.empty()) {
    const std::size_t end = file.find('\n');
    std::string_view line = trimmed(file.substr(0, end));
    file.remove_prefix(end == std::string_view::npos ? file.size() : end + 1);
    if (line.starts_with("export ")) line = trimmed(line.substr(7));
    if (!line.starts_with(variable) || !line.substr(variable.size()).starts_with('=')) continue;
    value = line.substr(variable.size() + 1);
    if (value.size() >= 2 && (value[0] == '"' || value[0] == '\'') && value.back() == value[0])
      value = value.substr(1, value.size() - 2);
  }
  return value;
}

}  // namespace

Locale Locale::current(const std::string& root) {
  for (const char* const variable : kVariables) {
    const char* const value = ::secure_getenv(variable);
    if (value != nullptr && *value != '\0') return parsed(value);
  }
  for (const std::string_view path : kFiles) {
    const auto file = readSmallFile(root + std::string(path), kMaximumFileSize);
    if (!file) continue;
    for (const char* const variable : kVariables) {
      const std::string_view value = assigned(*file, variable);
      if (!value.empty()) return parsed(value);
    }
  }
  return {};
}

}  // namespace skelda::platform
