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
  const auto value = valueOf(setting);
  if (value.isNumber()) return value.boolValue();
  const auto* text = value.text();
  return text != nullptr && std::ranges::equal(*text, std::string_view("YES"), {}, upperCase);
}

std::int32_t SkeldaHostSettings::numberOf(const Setting& setting) {
  const auto value = valueOf(setting);
  if (value.isNull()) return setting.whenAbsent;
  const auto given = value.integerValue();
  if (given < setting.least) {
    SKELDA_LOG(2, "{} may not be below {}", nameInLog(setting), setting.least);
    return setting.least;
  }
  if (given > setting.most) {
    SKELDA_LOG(2, "{} may not be above {}", nameInLog(setting), setting.most);
    return setting.most;
  }
  return static_cast<std::int32_t>(given);
}

std::optional<std::string> SkeldaHostSettings::apiKey() {
  const auto value = valueOf(kAPIKey);
  if (value.text() == nullptr || value.text()->empty()) return std::nullopt;
  return *value.text();
}
