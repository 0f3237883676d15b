#include "Analytics/Utils/SkeldaJSON.h"

#include <exception>

#include "Analytics/Utils/SkeldaLog.h"
#include "Platform/Foundation/JSONWriter.h"

std::string SkeldaJSON::skeldaJsonStringWithPrettyPrint(const platform::Dictionary& dictionary,
                                                        bool prettyPrint) noexcept {
  try {
    std::string text;
    text.reserve(256);
    platform::JSONWriter json(text, prettyPrint);
    json.beginObject();
    for (const auto& [key, value] : dictionary) {
      json.key(key);
      json.value(value);
    }
    json.endObject();
    return text;
  } catch (const std::exception& exception) {
    SKELDA_LOG(1, "bv_jsonStringWithPrettyPrint: error: {}", exception.what());
    SkeldaUtil::assert_(false, "-[NSDictionary(SkeldaJSON) skeldaJsonStringWithPrettyPrint:]");
    return "{}";
  }
}
