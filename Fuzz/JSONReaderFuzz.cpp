// What is read from any bytes is written and read back as the same value, compact and pretty, and
// what is refused says why.

#include "Fuzz/Fuzz.h"
#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/TextCoding.h"

using namespace skelda;

void fuzz(std::string_view text) {
  platform::ErrorRef error;
  const auto value = platform::readJSON(text, &error);
  if (!value) return require(error != nullptr);
  for (const bool pretty : {false, true}) {
    const std::string written = platform::jsonText(*value, pretty);
    require(platform::isValidUTF8(written));
    const auto again = platform::readJSON(written);
    require(again && *again == *value && platform::jsonText(*again, pretty) == written);
  }
}
