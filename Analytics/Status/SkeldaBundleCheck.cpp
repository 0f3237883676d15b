#include "Analytics/Status/SkeldaBundleCheck.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

#include "Analytics/Utils/SkeldaHostSettings.h"
#include "Platform/Foundation/TextCoding.h"

namespace {

using Line = SkeldaBundleCheck::Line;
using Setting = SkeldaHostSettings::Setting;
using SkeldaHostSettings::Kind;

constexpr std::string_view kIdentifierKey = "CFBundleIdentifier";

/// Letters alone, in lower case: blanks and capitals are what most slips are made of.
std::string lettersOf(std::string_view text) {
  std::string letters;
  for (const char c : text) {
    if (c >= 'A' && c <= 'Z') letters += static_cast<char>(c - 'A' + 'a');
    if (c >= 'a' && c <= 'z') letters += c;
  }
  return letters;
}

/// Letters to insert, delete, replace or swap with their neighbour to make one of the other, at
/// most.
std::size_t distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> before, row(b.size() + 1), next(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    next[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      next[j] = std::min({row[j] + 1, next[j - 1] + 1, row[j - 1] + (a[i - 1] != b[j - 1])});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
        next[j] = std::min(next[j], before[j - 2] + 1);
      }
    }
    before = std::exchange(row, next);
  }
  return row.back();
}

bool isKnown(std::string_view key) {
  return key == kIdentifierKey ||
         std::ranges::any_of(SkeldaHostSettings::kAll,
                             [&](const Setting& setting) { return setting.key == key; });
}

bool looksLike(std::string_view key, std::string_view known) {
  const auto a = lettersOf(key), b = lettersOf(known);
  // Whoever begins so means the agent; and "API Key" for "Skelda Watch API Key", and slips.
  return (a.starts_with("skelda") && b.starts_with("skelda")) ||
         (a.size() >= 5 && b.ends_with(a)) || distance(a, b) <= b.size() / 5;
}

/// The known key that an unknown one is nearest to; empty where it looks like none.
std::string_view nearestTo(std::string_view key) {
  std::string_view nearest;
  std::size_t least = key.size();
  const auto consider = [&](std::string_view known) {
    const auto apart = distance(lettersOf(key), lettersOf(known));
    if (!looksLike(key, known) || (!nearest.empty() && apart >= least)) return;
    nearest = known;
    least = apart;
  };
  consider(kIdentifierKey);
  for (const Setting& setting : SkeldaHostSettings::kAll) consider(setting.key);
  return nearest;
}

void takeText(Line& line, const platform::Value& value) {
  const auto* text = value.text();
  if (text == nullptr) {
    line.problem = "is no text, and is not used";
  } else if (text->empty()) {
    line.problem = "is empty, and is not used";
  } else if (!platform::isValidUTF8(*text)) {
    line.problem = "is not UTF-8, and is not used";
  } else {
    line.value = line.key == SkeldaHostSettings::kAPIKey.key ? "(not shown)" : *text;
  }
}

void takeFlag(Line& line, const platform::Value& value) {
  const auto* text = value.text();
  line.value = SkeldaHostSettings::isOn(value) ? "on" : "off";
  if (text == nullptr ? !value.isNumber() : line.value == "off" && lettersOf(*text) != "no") {
    line.problem = "is neither a number nor the text YES, and so is off";
  }
}

void takeNumber(Line& line, const Setting& setting, const platform::Value& value) {
  const auto used = SkeldaHostSettings::inRange(setting, value);
  line.value = fmt::format("{}", used);
  if (used != value.integerValue()) {
    line.problem =
        fmt::format("is no number from {} to {}, {} is used", setting.least, setting.most, used);
  }
}

Line lineOf(const Setting& setting, const platform::Dictionary& information) {
  Line line{std::string(setting.key), false, {}, {}, false};
  const auto* value = information.find(setting.key);
  line.isPresent = value != nullptr;
  if (value == nullptr) {
    if (setting.kind == Kind::flag) line.value = "off";
    if (setting.kind == Kind::number) line.value = fmt::format("{}", setting.whenAbsent);
    if (setting.isRequired) line.problem = "is missing, so every event is refused";
  } else if (setting.kind == Kind::text) {
    takeText(line, *value);
  } else if (setting.kind == Kind::flag) {
    takeFlag(line, *value);
  } else {
    takeNumber(line, setting, *value);
  }
  line.isBlocking = setting.isRequired && line.value.empty();
  return line;
}

}  // namespace

std::string SkeldaBundleCheck::keyLike(std::string_view key,
                                       const platform::Dictionary& information) {
  for (const auto& entry : information) {
    if (!isKnown(entry.first) && nearestTo(entry.first) == key) return entry.first;
  }
  return {};
}

std::vector<Line> SkeldaBundleCheck::linesOf(const platform::Dictionary& information) {
  Line identifier{std::string(kIdentifierKey), false, {}, {}, false};
  if (const auto* value = information.find(kIdentifierKey)) {
    identifier.isPresent = true;
    takeText(identifier, *value);
  } else {
    identifier.problem = "is missing: files are kept under the name of the bundle's folder";
  }
  std::vector<Line> lines{std::move(identifier)};
  for (const Setting& setting : SkeldaHostSettings::kAll) {
    lines.push_back(lineOf(setting, information));
  }
  for (const auto& [key, value] : information) {
    const auto known = isKnown(key) ? std::string_view() : nearestTo(key);
    if (known.empty()) continue;
    lines.push_back({key, true, {}, fmt::format("is not known: is \"{}\" meant?", known), false});
  }
  return lines;
}
