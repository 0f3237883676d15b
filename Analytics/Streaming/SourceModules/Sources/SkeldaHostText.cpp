#include "Analytics/Streaming/SourceModules/Sources/SkeldaHostText.h"

#include <algorithm>
#include <utility>

#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Platform/Foundation/TextCoding.h"

namespace skelda {

bool isWellFormedText(const platform::Value& value) noexcept {
  if (const auto* text = value.text()) return platform::isValidUTF8(*text);
  if (const auto* array = value.array()) {
    return std::all_of(array->begin(), array->end(), isWellFormedText);
  }
  if (const auto* dictionary = value.dictionary()) {
    return std::all_of(dictionary->begin(), dictionary->end(), [](const auto& entry) {
      return platform::isValidUTF8(entry.first) && isWellFormedText(entry.second);
    });
  }
  return true;
}

void settleRefused(SkeldaIntakeTicket ticket, const platform::Value& name,
                   const platform::Value& given) noexcept {
  SkeldaAccounting::settle(ticket, isWellFormedText(name) && isWellFormedText(given)
                                       ? SkeldaIntakeOutcome::wrongKind
                                       : SkeldaIntakeOutcome::notUTF8);
}

std::optional<std::string> textOf(platform::Value value) {
  if (value.isNull()) return std::nullopt;
  if (auto* text = value.text()) return std::move(*text);
  return value.description();
}

}  // namespace skelda
