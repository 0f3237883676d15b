#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <random>

#include "Platform/Foundation/JSONReader.h"
#include "Platform/Foundation/JSONWriter.h"
#include "Platform/Platform.h"

namespace {

using nlohmann::ordered_json;
using platform::Array;
using platform::Dictionary;
using platform::jsonText;
using platform::readJSON;
using platform::Value;

std::string dumped(const ordered_json& json, bool pretty = false) {
  return json.dump(pretty ? 4 : -1, ' ', false, ordered_json::error_handler_t::replace);
}

/// A value and the same one in the library's words.
struct Pair {
  Value value;
  ordered_json json;
};

class RandomPairs {
 public:
  Pair next(int depth = 0) {
    switch (number(depth < 4 ? 8 : 6)) {
      case 0:
        return {nullptr, nullptr};
      case 1:
        return same(number(2) == 0);
      case 2:
        return same(std::bit_cast<std::int64_t>(random_()) >> number(63));
      case 3:
        return same(random_() >> number(63));
      case 4:
        // Decimal fractions of few digits, for which any method finds the one shortest text.
        return same(static_cast<double>(number(1000000)) / 1000);
      case 5: {
        const std::string bytes = text();
        return {Value(bytes), ordered_json(bytes)};
      }
      case 6: {
        Pair pair{Array(), ordered_json::array()};
        for (std::uint64_t i = number(6); i > 0; --i) {
          Pair element = next(depth + 1);
          pair.value.array()->push_back(std::move(element.value));
          pair.json.push_back(std::move(element.json));
        }
        return pair;
      }
      default: {
        Pair pair{Dictionary(), ordered_json::object()};
        for (std::uint64_t i = number(6); i > 0; --i) {
          const std::string key = text();
          Pair element = next(depth + 1);
          pair.value.dictionary()->set(key, std::move(element.value));
          pair.json[key] = std::move(element.json);
        }
        return pair;
      }
    }
  }

  /// Plain, escaped, multi-byte and broken pieces, mixed.
  std::string text() {
    static const std::string kPieces[] = {"lap",          "\"",
                                          "\\",           "/",
                                          "\n\r\t\b\f",   {"\0", 1},
                                          "\x1f\x7f",     "\xC3\xA5",
                                          "\xE2\x98\x83", "\xF0\x9F\x8F\x83",
                                          "\xED\xA0\x80", "\xF0\x9F",
                                          "\xC0\xAF",     "\xFF",
                                          "\xE2\x98",     "0123456789abcdef"};
    std::string result;
    for (std::uint64_t i = number(8); i > 0; --i) result += kPieces[number(std::size(kPieces))];
    return result;
  }

  std::uint64_t bits() { return random_(); }

 private:
  template <class T>
  static Pair same(T value) {
    return {value, value};
  }
  std::uint64_t number(std::uint64_t end) { return random_() % end; }

  std::mt19937_64 random_{20240501};
};

TEST(JSONTest, WritesRandomValuesAsTheLibraryDoesByteForByteAndReadsThemBack) {
  RandomPairs pairs;
  for (int i = 0; i < 4000; ++i) {
    const Pair pair = pairs.next();
    for (const bool pretty : {false, true}) {
      const std::string text = jsonText(pair.value, pretty);
      ASSERT_EQ(text, dumped(pair.json, pretty)) << "pair " << i;
      const auto again = readJSON(text);
      ASSERT_TRUE(again);
      // Texts that were not UTF-8 have become so on the way.
      ASSERT_EQ(jsonText(*again, pretty), text);
    }
  }
}

TEST(JSONWriterTest, WritesRandomBytesAsTheLibraryReplacesThem) {
  RandomPairs pairs;
  for (int i = 0; i < 4000; ++i) {
    const std::array<std::uint64_t, 3> words{pairs.bits(), pairs.bits(), pairs.bits()};
    const std::string bytes(reinterpret_cast<const char*>(words.data()), sizeof words);
    ASSERT_EQ(jsonText(bytes), dumped(bytes));
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
  RandomPairs pairs;
  int different = 0;
  constexpr int kNumbers = 20000;
  for (int i = 0; i < kNumbers; ++i) {
    const std::uint64_t bits = pairs.bits();
    expectFaithful<double, ordered_json>(std::bit_cast<double>(bits), different);
    expectFaithful<double, ordered_json>(std::ldexp(static_cast<double>(bits >> 40), -10),
                                         different);
    expectFaithful<float, FloatJSON>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)),
                                     different);
  }
  EXPECT_LT(different, kNumbers / 100);
  for (const double number : {0.0, -0.0, 1.0, 1e14, 1e15, 1e16, 123456789012345678.0, 1e-4, 1e-5,
                              std::numeric_limits<double>::infinity(), -1.5e300})
    EXPECT_EQ(jsonText(number), ordered_json(number).dump());
  for (const float number : {0.1F, 1e5F, 1e6F, 999999.0F, 16777216.0F, 1e-5F})
    EXPECT_EQ(jsonText(number), FloatJSON(number).dump());
}

TEST(JSONWriterTest, WritesBytesAsBase64AndDatesAsMilliseconds) {
  using Microseconds = platform::Date::Microseconds;
  const Value value =
      Array{platform::Data("lap", 3), platform::Date(Microseconds(1714566600123999)),
            platform::Date(Microseconds(-1999))};
  EXPECT_EQ(jsonText(value), R"(["bGFw",1714566600123,-1])");
}

TEST(JSONReaderTest, TakesTheKindFromTheText) {
  const std::pair<const char*, Value> cases[] = {
      {" 1 ", 1},
      {"-9223372036854775808", std::numeric_limits<std::int64_t>::min()},
      {"9223372036854775808", std::uint64_t{1} << 63},
      {"1.0", 1.0},
      {"18446744073709551616", 18446744073709551616.0},
      {R"({"a":1,"b":2,"a":{"c":[]}})", {{"a", {{"c", Array()}}}, {"b", 2}}},
      {R"("\u00e5\ud83c\udfc3\/")", "\xC3\xA5\xF0\x9F\x8F\x83/"},
  };
  for (const auto& [text, expected] : cases) {
    const auto value = readJSON(text);
    ASSERT_TRUE(value) << text;
    EXPECT_EQ(value->kind(), expected.kind()) << text;
    EXPECT_EQ(*value, expected) << text;
  }
}

TEST(JSONReaderTest, RefusesWhatIsNotOneValidText) {
  const auto expectRefused = [](std::string_view text) {
    platform::ErrorRef error;
    EXPECT_FALSE(readJSON(text, &error)) << text;
    ASSERT_NE(error, nullptr) << text;
    EXPECT_EQ(error->code(), 3840);
  };
  for (const char* text :
       {"", " ", "{", "[1,]", "{\"a\"}", "{1:2}", "nul", "1 2", "[1]]", "'a'", "// c\n1"})
    expectRefused(text);
  for (const char* text : {"01", "+1", "1e999", "NaN"}) expectRefused(text);
  for (const char* text :
       {"\"\n\"", "\"a", "\"\xFF\"", "\"\xED\xA0\x80\"", "\"\\ud800\"", "\"\\x\""})
    expectRefused(text);
  expectRefused({"1\0", 2});
}

TEST(JSONReaderTest, HoldsToItsLimits) {
  const auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_TRUE(readJSON(nested(64)));
  EXPECT_FALSE(readJSON(nested(65)));
  EXPECT_FALSE(readJSON(std::string(1000000, '[')));
  platform::JSONLimits limits;
  limits.maximumBytes = 7;
  limits.maximumValues = 3;
  EXPECT_TRUE(readJSON("[1,222]", nullptr, limits));
  EXPECT_FALSE(readJSON("[1,2222]", nullptr, limits));
  EXPECT_FALSE(readJSON("[1,2,3]", nullptr, limits));
}

}  // namespace
