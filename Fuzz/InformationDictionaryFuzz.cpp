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

// Any bytes are a property list within the limits or are refused with an error.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  platform::ErrorRef error;
  const auto value = platform::readPropertyList(platform::Data(bytes, size), &error);
  if (!value) {
    if (error == nullptr) std::abort();
    return 0;
  }
  if (height(*value) > platform::PropertyListLimits::kMaximumDepth) std::abort();
  if (!platform::isValidUTF8(platform::jsonText(*value))) std::abort();
  return 0;
}
