// Logs every kind of name and of parameters that a careless or malicious caller could, and prints
// for each what the call answered: "case result".

#include <cstdio>
#include <cstdlib>
#include <string>

#include "Examples/MorningRun/QuietFolder.h"
#include "Skelda_Watch/SkeldaWatch.h"

using namespace std::chrono_literals;

namespace {

const std::string kNotUTF8 = "broken \xff\xc3(";
const std::string kHuge(64 * 1024, 'h');

void log(const char* what, const SkeldaValue& name, SkeldaValue parameters = {}) {
  std::printf("%s %u\n", what, SkeldaWatch::logWatchEvent(name, std::move(parameters)));
  std::fflush(stdout);
}

void badNames() {
  log("name-number", 42);
  log("name-null", SkeldaValue());
  log("name-array", SkeldaArray{"a"});
  log("name-dictionary", SkeldaDictionary{{"a", 1}});
  log("name-date", skelda::platform::Date::now());
  log("name-empty", "");
  log("name-not-utf8", kNotUTF8);
}

void oddNames() {
  log("name-quotes", "quotes \" ' \\ /");
  log("name-controls", std::string("controls \x01\n\t\r\x7f"));
  log("name-nul", std::string("nul\0inside", 10));
  log("name-huge", kHuge);
  log("name-scripts", "名前 שם नाम 🏃");
}

SkeldaValue nested(int depth) {
  SkeldaValue value = "bottom";
  for (int i = 0; i < depth; ++i) {
    SkeldaArray array;
    SkeldaDictionary dictionary;
    if (i % 2 == 0) {
      dictionary.set("k", std::move(value));
      value = std::move(dictionary);
    } else {
      array.push_back(std::move(value));
      value = std::move(array);
    }
  }
  return value;
}

void parameters() {
  log("value-deep", "value-deep", {{"deep", nested(62)}});
  log("value-too-deep", "value-too-deep", {{"deep", nested(130000)}});
  log("value-too-long", "value-too-long", {{"long", std::string(1 << 20, 'l')}});
  log("value-huge", "value-huge", {{"huge", kHuge}});
  log("value-odd", "value-odd",
      {{"quotes", "\"\\"}, {"nul", std::string("a\0b", 3)}, {"lines", "a\r\nb"}});
  log("key-not-utf8", "key-not-utf8", {{kNotUTF8, "x"}});
  log("value-not-utf8", "value-not-utf8", {{"k", SkeldaArray{{{"deep", kNotUTF8}}}}});
}

}  // namespace

int main() {
  badNames();
  oddNames();
  parameters();
  log("last", "last");
  const auto storage =
      std::filesystem::path(std::getenv("XDG_DATA_HOME")) / BUNDLE_IDENTIFIER / "SkeldaFiles";
  return QuietFolder(storage).wait(1s, 20s) ? 0 : 1;
}
