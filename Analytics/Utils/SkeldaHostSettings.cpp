#include "Analytics/Utils/SkeldaHostSettings.h"

#include <algorithm>

#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/Bundle.h"

namespace {

char upperCase(char letter) {
  return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
}

/// As log lines have it: "Watch event threshold".
std::string nameInLog(const SkeldaHostSettings::Setting& setting) {
  std::string name(setting.key.substr(setting.key.find(' ') + 1));
  std::transform(name.begin() + 1, name.end(), name.begin() + 1, [](char letter) {
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
  });
  return name;
}

}  // namespace

platform::Value SkeldaHostSettings::valueOf(const Setting& setting) {
  return platform::Bundle::main()->objectForInfoDictionaryKey(setting.key);
}

bool SkeldaHostSettings::isSwitchedOn(const Setting& setting) {
  return isOn(valueOf(setting));
}

bool SkeldaHostSettings::isOn(const platform::Value& value) {
  if (value.isNumber()) return value.boolValue();
  const auto* text = value.text();
  return text != nullptr && std::ranges::equal(*text, std::string_view("YES"), {}, upperCase);
}

std::int32_t SkeldaHostSettings::inRange(const Setting& setting, const platform::Value& value) {
  if (value.isNull()) return setting.whenAbsent;
  return static_cast<std::int32_t>(
      std::clamp<std::int64_t>(value.integerValue(), setting.least, setting.most));
}

std::int32_t SkeldaHostSettings::numberOf(const Setting& setting) {
  const auto value = valueOf(setting);
  const auto used = inRange(setting, value);
  if (!value.isNull() && value.integerValue() != used) {
    const bool isBelow = value.integerValue() < used;
    SKELDA_LOG(2, "{} may not be {} {}", nameInLog(setting), isBelow ? "below" : "above", used);
  }
  return used;
}

std::optional<std::string> SkeldaHostSettings::apiKey() {
  const auto value = valueOf(kAPIKey);
  if (value.text() == nullptr || value.text()->empty()) return std::nullopt;
  return *value.text();
}
