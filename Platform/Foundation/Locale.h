#pragma once

#include <optional>
#include <string>

namespace skelda::platform {

/// The user's locale as the environment has it (LC_ALL, LC_MESSAGES, LANG, in that order, then
/// /etc/locale.conf and /etc/default/locale). Nothing for "C", "POSIX" and what does not parse.
struct Locale {
  std::optional<std::string> languageCode;  ///< ISO 639, lower case: "en"
  std::optional<std::string> countryCode;   ///< ISO 3166, upper case, or UN M.49: "GB", "419"
  /// `root` stands before the paths of the files, for tests.
  static Locale current(const std::string& root = {});

  friend bool operator==(const Locale&, const Locale&) = default;
};

}  // namespace skelda::platform
