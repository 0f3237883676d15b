#pragma once

#include <optional>
#include <string>

namespace skelda::platform {

/// The local time zone's name in the zone database ("Europe/Oslo"): TZ, then /etc/localtime's
/// target, then /etc/timezone; nothing where none names one.
struct TimeZone {
  std::optional<std::string> name;
  static TimeZone local();
};

}  // namespace skelda::platform
