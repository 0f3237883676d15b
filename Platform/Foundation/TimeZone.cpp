#include "Platform/Foundation/TimeZone.h"

#include <limits.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <string_view>

#include "Platform/Foundation/SmallFile.h"

namespace skelda::platform {
namespace {

constexpr std::string_view kDatabase = "zoneinfo/";
constexpr std::size_t kMaximumNameLength = 64;
constexpr std::size_t kMaximumFileSize = 4096;

bool isLetter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isNameCharacter(char c) {
  return isLetter(c) || (c >= '0' && c <= '9') || c == '_' || c == '+' || c == '-';
}

/// Whether each part of the path begins with a letter and holds only what names of zones hold.
bool isWellFormed(std::string_view name) {
  if (name.empty() || name.size() > kMaximumNameLength) return false;
  bool atStart = true;
  for (const char c : name) {
    if (atStart ? !isLetter(c) : (c != '/' && !isNameCharacter(c))) return false;
    atStart = c == '/';
  }
  return !atStart;
}

/// The zone's name in the path of a file of the database, or the name itself.
std::optional<std::string> nameIn(std::string_view path) {
  const std::size_t database = path.rfind(kDatabase);
  if (database != std::string_view::npos) path.remove_prefix(database + kDatabase.size());
  // Two variants of the database, below it.
  for (const std::string_view variant : {"posix/", "right/"})
    if (path.starts_with(variant)) path.remove_prefix(variant.size());
  if (!isWellFormed(path)) return std::nullopt;
  return std::string(path);
}

/// Tells a name such as "EST5EDT" from a rule such as "CET-1CEST", which look alike.
bool isInDatabase(const std::string& root, const std::string& name) {
  return ::access((root + "/usr/share/zoneinfo/" + name).c_str(), F_OK) == 0;
}

std::optional<std::string> fromLink(const std::string& path) {
  // One step of the link, not its end: names of the database are links themselves.
  std::array<char, PATH_MAX> target{};
  const ssize_t length = ::readlink(path.c_str(), target.data(), target.size());
  if (length <= 0) return std::nullopt;
  const std::string_view direct(target.data(), static_cast<std::size_t>(length));
  if (direct.find(kDatabase) != std::string_view::npos) return nameIn(direct);
  if (::realpath(path.c_str(), target.data()) == nullptr) return std::nullopt;
  const std::string_view end(target.data());
  return end.find(kDatabase) != std::string_view::npos ? nameIn(end) : std::nullopt;
}

std::optional<std::string> fromFile(const std::string& path) {
  constexpr std::string_view kBlanks = " \t\r\n";
  const auto file = readSmallFile(path, kMaximumFileSize);
  if (!file) return std::nullopt;
  std::string_view text(*file);
  const std::size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return std::nullopt;
  text.remove_prefix(first);
  return nameIn(text.substr(0, text.find_first_of(kBlanks)));
}

constexpr std::string_view kSystemsFile = "/etc/localtime";

std::optional<std::string> fromSystem(const std::string& root) {
  std::optional<std::string> name = fromLink(root + std::string(kSystemsFile));
  return name ? name : fromFile(root + "/etc/timezone");
}

std::optional<std::string> fromVariable(std::string_view value, const std::string& root) {
  if (value.starts_with(':')) value.remove_prefix(1);
  // So the C library reads an empty one.
  if (value.empty()) return "UTC";
  if (value == kSystemsFile) return fromSystem(root);
  std::optional<std::string> name = nameIn(value);
  if (!name) return std::nullopt;
  const bool mayBeRule = value.find('/') == std::string_view::npos &&
                         value.find_first_of("0123456789") != std::string_view::npos;
  if (mayBeRule && !isInDatabase(root, *name)) return std::nullopt;
  return name;
}

}  // namespace

TimeZone TimeZone::local(const std::string& root) {
  if (const char* const variable = ::secure_getenv("TZ")) return {fromVariable(variable, root)};
  return {fromSystem(root)};
}

}  // namespace skelda::platform
