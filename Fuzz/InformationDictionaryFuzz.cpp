// Any bytes are a property list within the limits or are refused with an error.

#include "Fuzz/Fuzz.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/PropertyList.h"
#include "Platform/Foundation/PropertyListScreen.h"
#include "Platform/Foundation/TextCoding.h"

using namespace skelda;

namespace {

std::size_t height(const platform::Value& value) {
  std::size_t below = 0;
  if (const auto* array = value.array())
    for (const auto& element : *array) below = std::max(below, height(element));
  if (const auto* dictionary = value.dictionary())
    for (const auto& [key, element] : *dictionary) below = std::max(below, height(element));
  return below + 1;
}

}  // namespace

void fuzz(std::string_view bytes) {
  platform::ErrorRef error;
  const auto value = platform::readPropertyList(platform::Data(bytes.data(), bytes.size()), &error);
  if (!value) return require(error != nullptr);
  require(height(*value) <= platform::PropertyListLimits::kMaximumDepth);
  require(platform::isValidUTF8(platform::jsonText(*value)));
}
