#include <nlohmann/json.hpp>

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Foundation/KeyedArchive.h"
#include "Platform/Foundation/TextCoding.h"
#include "Tests/Support/Testing.h"

namespace {

using nlohmann::ordered_json;

std::string dumped(const ordered_json& json, bool pretty = false) {
  return json.dump(pretty ? 4 : -1, ' ', false, ordered_json::error_handler_t::replace);
}

Value valueOf(const ordered_json& json) {
  if (json.is_array()) {
    Array array;
    for (const auto& each : json) array.push_back(valueOf(each));
    return array;
  }
  if (json.is_object()) {
    Dictionary dictionary;
    for (const auto& [key, each] : json.items()) dictionary.set(key, valueOf(each));
    return dictionary;
  }
  if (json.is_string()) return json.get<std::string>();
  if (json.is_boolean()) return json.get<bool>();
  if (json.is_number_unsigned()) return json.get<std::uint64_t>();
  if (json.is_number_integer()) return json.get<std::int64_t>();
  return json.is_null() ? Value() : Value(json.get<double>());
}

class RandomJSON {
 public:
  ordered_json next(int depth = 0) {
    const auto kind = number(depth < 4 ? 8 : 6);
    if (kind == 0) return nullptr;
    if (kind == 1) return number(2) == 0;
    if (kind == 2) return std::bit_cast<std::int64_t>(random_()) >> number(63);
    if (kind == 3) return random_() >> number(63);
    // Decimal fractions of few digits, for which any method finds the one shortest text.
    if (kind == 4) return static_cast<double>(number(1000000)) / 1000;
    if (kind == 5) return text();
    auto json = kind == 6 ? ordered_json::array() : ordered_json::object();
    for (std::uint64_t i = number(6); i > 0; --i)
      kind == 6 ? json.push_back(next(depth + 1)) : void(json[text()] = next(depth + 1));
    return json;
  }

  /// Plain, escaped, multi-byte and broken pieces and random bytes, mixed.
  std::string text() {
    static const std::string kPieces[] = {
        "/",        "\xF0\x9F",         "\"",       "\xC0\xAF",        "\\",      "\xE2\x98",
        "lap",      "\n\r\t\b\f",       "\xFF",     "\xE2\x98\x83",    {"\0", 1}, "\xED\xA0\x80",
        "\x1f\x7f", "\xF0\x9F\x8F\x83", "\xC3\xA5", "0123456789abcdef"};
    std::string result;
    for (std::uint64_t i = number(8); i > 0; --i) {
      const std::uint64_t bytes = random_();
      const auto which = number(std::size(kPieces) + 4);
      const std::string raw(reinterpret_cast<const char*>(&bytes), sizeof bytes);
      result += which < std::size(kPieces) ? kPieces[which] : raw;
    }
    return result;
  }

  std::uint64_t bits() { return random_(); }

 private:
  std::uint64_t number(std::uint64_t end) { return random_() % end; }

  std::mt19937_64 random_{20240501};
};

TEST(JSONTest, WritesRandomValuesAsTheLibraryDoesByteForByteAndReadsThemBack) {
  RandomJSON random;
  for (int i = 0; i < 4000; ++i) {
    const ordered_json json = random.next();
    for (const bool pretty : {false, true}) {
      const std::string text = jsonText(valueOf(json), pretty);
      ASSERT_EQ(text, dumped(json, pretty)) << "value " << i;
      const auto again = readJSON(text);
      ASSERT_TRUE(again);
      // Texts that were not UTF-8 have become so on the way.
      ASSERT_EQ(jsonText(*again, pretty), text);
    }
  }
}

/// The library's method now and then misses the shortest digits, and the nearest among them; then
/// ours must be no longer and read back the same.
template <class Real, class Library>
void expectFaithful(Real number, int& different) {
  const std::string ours = jsonText(number);
  const std::string theirs = Library(number).dump();
  if (ours == theirs) return;
  ++different;
  EXPECT_LE(ours.size(), theirs.size()) << theirs;
  const Real again = sizeof(Real) == 4 ? static_cast<Real>(std::strtof(ours.c_str(), nullptr))
                                       : static_cast<Real>(std::strtod(ours.c_str(), nullptr));
  EXPECT_EQ(again, number) << ours;
}

TEST(JSONWriterTest, WritesRealNumbersInTheShortestTextThatReadsBack) {
  using FloatJSON = nlohmann::basic_json<std::map, std::vector, std::string, bool, std::int64_t,
                                         std::uint64_t, float>;
  RandomJSON random;
  int different = 0;
  constexpr int kNumbers = 20000;
  for (int i = 0; i < kNumbers; ++i) {
    const std::uint64_t bits = random.bits();
    const double fraction = std::ldexp(static_cast<double>(bits >> 40), -10);
    expectFaithful<double, ordered_json>(std::bit_cast<double>(bits), different);
    expectFaithful<double, ordered_json>(fraction, different);
    const auto single = std::bit_cast<float>(static_cast<std::uint32_t>(bits));
    expectFaithful<float, FloatJSON>(single, different);
  }
  EXPECT_LT(different, kNumbers / 100);
  for (const double number : {0.0, -0.0, 1.0, 1e14, 1e15, 1e16, 123456789012345678.0, 1e-4, 1e-5,
                              std::numeric_limits<double>::infinity(), -1.5e300})
    EXPECT_EQ(jsonText(number), ordered_json(number).dump());
  for (const float number : {0.1F, 1e5F, 1e6F, 999999.0F, 16777216.0F, 1e-5F})
    EXPECT_EQ(jsonText(number), FloatJSON(number).dump());
}

TEST(JSONWriterTest, WritesDataInBase64AndDatesInMilliseconds) {
  EXPECT_EQ(jsonText(Array{Data("lap", 3), Date(Date::Microseconds(-1999))}), R"(["bGFw",-1])");
}

TEST(JSONReaderTest, TakesTheKindFromTheText) {
  const std::pair<const char*, Value> cases[] = {
      {" 1 ", 1},
      {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
      {"9223372036854775808", std::uint64_t{1} << 63},
      {"1.0", 1.0},
      {"18446744073709551616", 18446744073709551616.0},
      {R"({"a":1,"b":2,"a":{"c":[]}})", {{"a", {{"c", Array()}}}, {"b", 2}}},
      {R"("\u00e5\ud83c\udfc3\/")", "\xC3\xA5\xF0\x9F\x8F\x83/"}};
  for (const auto& [text, expected] : cases) {
    const auto value = readJSON(text);
    ASSERT_TRUE(value) << text;
    EXPECT_EQ(value->kind(), expected.kind()) << text;
    EXPECT_EQ(*value, expected) << text;
  }
}

TEST(JSONReaderTest, RefusesWhatIsNotOneValidText) {
  const auto expectRefused = [](std::string_view text) {
    ErrorRef error;
    EXPECT_FALSE(readJSON(text, &error)) << text;
    EXPECT_EQ(error->code(), 3840) << text;
  };
  for (const char* text : {"", " ", "{", "[1,]", "{1:2}", "nul", "1 2", "[1]]", "'a'", "\"a", "01",
                           "+1", "1e999", "NaN", "{\"a\"}", "// c\n1"})
    expectRefused(text);
  for (const std::string text : {"\n", "\xFF", "\xED\xA0\x80", "\\ud800", "\\x"})
    expectRefused('"' + text + '"');
  expectRefused({"1\0", 2});
}

TEST(JSONReaderTest, HoldsToItsLimits) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(readJSON(nested(64)));
  EXPECT_FALSE(readJSON(nested(65)));
  EXPECT_FALSE(readJSON(std::string(1000000, '[')));
  JSONLimits limits;
  limits.maximumBytes = 7;
  limits.maximumValues = 3;
  EXPECT_TRUE(readJSON("[1,222]", nullptr, limits));
  EXPECT_FALSE(readJSON("[1,2222]", nullptr, limits));
  EXPECT_FALSE(readJSON("[1,2,3]", nullptr, limits));
}

const auto archived = [](Value root) { return archivedData({"NSDictionary", root}).string(); };

TEST(KeyedArchiveTest, BringsEveryKindBackAsItWentInOutOfAReadableText) {
  const double infinity = std::numeric_limits<double>::infinity();
  const Value cases[] = {
      nullptr,
      Array{true, -5, INT64_MIN, 5U, UINT64_MAX},
      Array{3.0, -0.0, 0.1, 5e-324, std::numeric_limits<double>::max(), -infinity},
      std::numeric_limits<double>::quiet_NaN(),
      Array{0.1F, 0x1.5c87fap-84F, std::numeric_limits<float>::max(), static_cast<float>(infinity)},
      Array{"text \"\n\xC3\xA5", "not UTF-8: \xFF", std::string("nul \0 inside", 12)},
      Array{Data("\0\xFF", 2), Data(), Array(), Dictionary()},
      Array{Date(Date::Microseconds(-1)), Date::distantFuture()},
      {{"b", 1}, {"a", {{"c", 2.5F}}}},
      {{"$data", "looks like a tag"}},
      {{"$dict", {{"$dict", 1}}}},
      {{"$data", 1}, {"and", 2}},
      {{"\xFF", {{"\xFE", 1U}}}, {"$x", "\xFD"}}};
  for (const Value& value : cases) {
    const KeyedArchive again = unarchivedObject(archivedData({"Class", value}));
    EXPECT_EQ(again.className, "Class");
    EXPECT_EQ(again.root.kind(), value.kind()) << value.description();
    // The text tells kinds apart at every depth, where equality does not.
    EXPECT_EQ(archived(again.root), archived(value));
    EXPECT_EQ(again.root, value) << value.description();
  }
  EXPECT_EQ(archived({{"at", Date(Date::Microseconds(12))}, {"bytes", Data("lap", 3)}, {"n", 1}}),
            R"({"archive":"skelda","version":1,"class":"NSDictionary","root":)"
            R"({"at":{"$date":12},"bytes":{"$data":"bGFw"},"n":1}})");
}

TEST(KeyedArchiveTest, RefusesWhatIsNotAnArchive) {
  const auto with = [](std::string_view root) {
    return R"({"archive":"skelda","version":1,"class":"C","root":)" + std::string(root) + "}";
  };
  const auto isSaid = testing::Property(&Exception::name, "NSInvalidUnarchiveOperationException");
  const auto expectRefused = [&](const std::string& text) {
    EXPECT_THAT([&] { unarchivedObject(Data(text)); }, testing::Throws<Exception>(isSaid)) << text;
  };
  ASSERT_NO_THROW(unarchivedObject(Data(with("{}"))));
  for (const char* text : {"", "{}", "[]", R"({"archive":"skelda","version":1,"class":"C"})",
                           R"({"archive":"other","version":1,"class":"C","root":{}})",
                           R"({"archive":"skelda","version":2,"class":"C","root":{}})",
                           R"({"archive":"skelda","version":1,"class":1,"root":{}})"})
    expectRefused(text);
  for (const char* root :
       {R"({"$unknown":1})", R"({"$data":"not base64"})", R"({"$data":1})", R"({"$date":1.5})",
        R"({"$uint":-1})", R"({"$float":1e300})", R"({"$float":"one"})", R"({"$real":{}})",
        R"({"$dict":[]})", R"({"$pairs":["odd"]})", R"({"$pairs":[1,2]})"})
    expectRefused(with(root));
  expectRefused(with("{}").substr(0, 50));
  expectRefused(with("{}") + "x");
  expectRefused(with(std::string(1000, '[') + std::string(1000, ']')));
}

TEST(KeyedArchiveTest, WritesNothingThatItWouldNotRead) {
  Value deep = 1;
  for (int i = 0; i < 250; ++i) deep = Array{std::move(deep)};
  EXPECT_EQ(unarchivedObject(archivedData({"C", deep})).root, deep);
  for (int i = 0; i < 10; ++i) deep = Array{std::move(deep)};
  EXPECT_THROW(archivedData({"C", deep}), Exception);
  EXPECT_THROW(archivedData({"\xFF", 1}), Exception);
}

TEST(Base64Test, AgreesWithThePublishedVectorsAndRefusesWhatNoEncoderWrites) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"", ""},       {"foo", "Zm9v"},       {"foob", "Zm9vYg=="},     {"f", "Zg=="},
      {"fo", "Zm8="}, {"fooba", "Zm9vYmE="}, {"\xFB\xEF\xFF", "++//"}, {"foobar", "Zm9vYmFy"},
  };
  for (const auto& [bytes, text] : cases) {
    EXPECT_EQ(base64Encoded(bytes), text);
    EXPECT_EQ(base64Decoded(text), Data(std::string(bytes))) << text;
  }
  for (const std::string_view text : {"Z", "Zg", "Zg=", "Zm9v\n", "Zm9\n", "Zm9vZg==Zm9v", "====",
                                      "=Zg=", "Z===", "Zh==", "Zm9=", "Zm-_", "Zm 9", "Zg=v"})
    EXPECT_FALSE(base64Decoded(text)) << text;
}

TEST(UTF8Test, TellsWellFormedTextFromTheRest) {
  const auto expect = [](std::string_view bytes, bool isValid) {
    for (const auto& text : {std::string(bytes), "12345" + std::string(bytes) + "6789abcdef"})
      EXPECT_EQ(isValidUTF8(text), isValid) << testing::PrintToString(text);
  };
  for (const std::string_view text : {"", "\xC2\x80", "\xE0\xA0\x80", "\xED\x9F\xBF",
                                      "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"})
    expect(text, true);
  // Broken, over-long, surrogates, and past the last code point.
  for (const std::string_view text :
       {"\x80", "\xFF", "\xC3", "\xF0\x9F\x8F", "\xE2\x98\xC3\xA5", "\xC1\xBF", "\xE0\x9F\xBF",
        "\xF0\x8F\xBF\xBF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80"})
    expect(text, false);
}

TEST(StableHashTest, IsFNV1aForEver) {
  EXPECT_EQ(stableHash(""), 0xCBF29CE484222325U);
  EXPECT_EQ(stableHash("a"), 0xAF63DC4C8601EC8CU);
  EXPECT_EQ(stableHash("foobar"), 0x85944171F73967E8U);
}

}  // namespace
