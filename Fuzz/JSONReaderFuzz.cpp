#include "Fuzz/Fuzz.h"
#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/TextCoding.h"

using namespace skelda;

// What is read from any bytes is written and read back as the same value, compact and pretty, and
// what is refused says why.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  platform::ErrorRef error;
  const auto value = platform::readJSON(text, &error);
  if (!value) {
    if (error == nullptr) std::abort();
    return 0;
  }
  for (const bool pretty : {false, true}) {
    const std::string written = platform::jsonText(*value, pretty);
    if (!platform::isValidUTF8(written)) std::abort();
    const auto again = platform::readJSON(written);
    if (!again || *again != *value || platform::jsonText(*again, pretty) != written) std::abort();
  }
  return 0;
}
