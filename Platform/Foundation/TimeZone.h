#pragma once

#include <optional>
#include <string>

namespace skelda::platform {

/// The local time zone's name in the zone database ("Europe/Oslo"): TZ, then /etc/localtime's
/// target, then /etc/timezone; nothing where none names one. A TZ that spells out a rule of its own
/// ("CET-1CEST") is in force and has no name.
struct TimeZone {
  std::optional<std::string> name;
  /// `root` stands before the paths of the files, for tests.
  static TimeZone local(const std::string& root = {});

  friend bool operator==(const TimeZone&, const TimeZone&) = default;
};

}  // namespace skelda::platform
