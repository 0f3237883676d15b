#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Analytics/Utils/SkeldaHostSettings.h"

namespace skelda::tools {

/// The name under which the command line has a setting: "--event-threshold" for "Skelda Watch Event
/// Threshold".
std::string optionOf(const SkeldaHostSettings::Setting& setting);

/// What is wrong with such a text for that setting; empty where nothing is.
std::string problemOf(const SkeldaHostSettings::Setting& setting, const std::string& text);

/// The text of an Info.plist (XML) with those entries, in that order.
class InformationList {
 public:
  void addText(std::string_view key, std::string_view text);
  void add(const SkeldaHostSettings::Setting& setting, const std::string& text);
  std::string xml() const;

 private:
  void add(std::string_view key, std::string_view kind, std::string_view text);
  std::string entries_;
};

}  // namespace skelda::tools
