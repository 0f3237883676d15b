#include "Tests/Support/Testing.h"

namespace {

constexpr std::int64_t kSignedMax = INT64_MAX, kSignedMin = INT64_MIN;
constexpr std::uint64_t kUnsignedMax = UINT64_MAX;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kTwoTo63 = 9223372036854775808.0;

TEST(ValueTest, ComparesNumbersExactlyAcrossKinds) {
  // Neither greatest number fits a double, which rounds them to 2 to the 63rd and 64th.
  const std::tuple<Value, Value, bool> cases[] = {
      {"1", 1, false},           {kSignedMax, kTwoTo63, false},
      {-0.0, 0, true},           {kSignedMin, -kTwoTo63, true},
      {kNaN, kNaN, true},        {kUnsignedMax, 2 * kTwoTo63, false},
      {false, 0.0F, true},       {std::uint64_t{1} << 63, kTwoTo63, true},
      {nullptr, 0, false},       {kSignedMax, std::uint64_t{INT64_MAX}, true},
      {-1, kUnsignedMax, false}, {9007199254740993, 9007199254740992.0, false}};
  for (const auto& [a, b, equal] : cases)
    EXPECT_TRUE((a == b) == equal && (b == a) == equal)
        << a.description() << " and " << b.description();
}

TEST(ErrorTest, SaysWhatItIsWhereItsInformationHasNoText) {
  const Error error(makeErrorDomain("d"), 7, Dictionary{{"NSLocalizedDescription", 1}});
  EXPECT_EQ(error.localizedDescription(), "The operation could not be completed. (d error 7.)");
}

TEST(ValueTest, NestsAsDeepAsMemoryGoes) {
  constexpr int kLevels = 300'000;
  Value nested(7);
  for (int level = 0; level < kLevels; ++level) {
    Array array{"beside"};
    Dictionary dictionary;
    if (level % 2 == 0) {
      array.push_back(std::move(nested));
      nested = std::move(array);
    } else {
      dictionary.set("key", std::move(nested));
      nested = std::move(dictionary);
    }
  }
  Value copy(nested);
  nested = nullptr;
  int levels = 0;
  const Value* at = &copy;
  for (; at->array() != nullptr || at->dictionary() != nullptr; ++levels)
    at = at->array() != nullptr ? &at->array()->back() : at->dictionary()->find("key");
  EXPECT_EQ(levels, kLevels);
  EXPECT_EQ(*at, 7);
}

TEST(ValueTest, ConvertsNumbersAndNumericTextWithSaturation) {
  const std::tuple<Value, std::int64_t, std::uint64_t, double> cases[] = {
      {true, 1, 1, 1},     {"1e3", 1, 1, 1000},
      {-5, -5, 0, -5},     {"  42 laps", 42, 42, 42},
      {0.0F, 0, 0, 0},     {1e300, kSignedMax, kUnsignedMax, 1e300},
      {0.1, 0, 0, 0.1},    {kInfinity, kSignedMax, kUnsignedMax, kInfinity},
      {"--5", 0, 0, 0},    {"1e999", 1, 1, std::numeric_limits<double>::max()},
      {"lap 3", 0, 0, 0},  {"99999999999999999999", kSignedMax, kUnsignedMax, 1e20},
      {nullptr, 0, 0, 0},  {"-9223372036854775808", kSignedMin, 0, -9223372036854775808.0},
      {-2.9, -2, 0, -2.9}, {kUnsignedMax, kSignedMax, kUnsignedMax, 18446744073709551616.0}};
  for (const auto& [value, integer, unsignedInteger, real] : cases) {
    EXPECT_EQ(value.integerValue(), integer) << value.description();
    EXPECT_EQ(value.unsignedValue(), unsignedInteger) << value.description();
    EXPECT_EQ(value.doubleValue(), real) << value.description();
    EXPECT_EQ(value.boolValue(), value.isNumber() && real != 0) << value.description();
  }
  EXPECT_TRUE(Value(kNaN).boolValue());
  EXPECT_EQ(Value(kNaN).integerValue(), 0);
  EXPECT_EQ(Value(kNaN).unsignedValue(), 0U);
}

TEST(ValueTest, DescribesItselfInTheShortestFaithfulText) {
  const std::pair<Value, std::string> cases[] = {
      {-5, "-5"},           {kSignedMin, "-9223372036854775808"},
      {3.0, "3"},           {kUnsignedMax, "18446744073709551615"},
      {true, "1"},          {1e15, "1000000000000000"},
      {false, "0"},         {-1e21, "-1000000000000000000000"},
      {-0.0, "-0"},         {1.5e15F, "1500000014041088"},
      {0.1F, "0.1"},        {1.0F / 3, "0.33333334"},
      {kNaN, "nan"},        {Data("\0\1", 2), "AAE="},
      {kInfinity, "inf"},   {"as it is\n", "as it is\n"},
      {-kInfinity, "-inf"}, {Date(-1ms), "1969-12-31T23:59:59.999Z"},
      {nullptr, "(null)"},  {Date(1714566600s), "2024-05-01T12:30:00Z"},
      {2.5e-7, "2.5e-07"},  {{{"b", 1}, {"a", nullptr}}, R"({"b":1,"a":null})"}};
  for (const auto& [value, text] : cases) EXPECT_EQ(value.description(), text);
}

TEST(DictionaryTest, KeepsTheLastValueOfManyRepeatedKeysInTheFirstPlace) {
  for (const int distinct : {5, 40}) {
    std::vector<Dictionary::Entry> entries;
    Dictionary expected;
    for (int i = 0; i < 2 * distinct + 1; ++i) {
      const std::string key = "key " + std::to_string(i * 7 % distinct);
      entries.emplace_back(key, i);
      expected.set(key, i);
    }
    EXPECT_EQ(Value(Dictionary::withEntries(entries)).description(), Value(expected).description());
    EXPECT_TRUE(expected.erase("key 3"));
    EXPECT_FALSE(expected.erase("key 3"));
    EXPECT_NE(expected, Dictionary::withEntries(entries));
  }
}

TEST(DateTest, RoundsSecondsToTheNearestMicrosecondAndSaturates) {
  const std::pair<double, std::int64_t> cases[] = {
      {1714566600.123456, 1714566600123456}, {-0.0000015, -2}, {1e300, kSignedMax}, {kNaN, 0}};
  for (const auto& [seconds, micro] : cases)
    EXPECT_EQ(Date::withTimeIntervalSince1970(seconds).microsecondsSince1970().count(), micro);
}

}  // namespace
