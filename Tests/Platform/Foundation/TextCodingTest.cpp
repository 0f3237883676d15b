#include "Platform/Foundation/TextCoding.h"

#include <gtest/gtest.h>

#include "Platform/Platform.h"

namespace {

using platform::base64Decoded;
using platform::base64Encoded;

TEST(Base64Test, AgreesWithThePublishedVectors) {
  const std::pair<std::string_view, std::string_view> cases[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {"\xFB\xEF\xFF", "++//"},
  };
  for (const auto& [bytes, text] : cases) {
    EXPECT_EQ(base64Encoded(bytes), text);
    ASSERT_TRUE(base64Decoded(text)) << text;
    EXPECT_EQ(base64Decoded(text)->view(), bytes);
  }
}

TEST(Base64Test, BringsEveryByteAtEveryPlaceBack) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) {
    bytes += static_cast<char>(i * 151);
    EXPECT_EQ(base64Decoded(base64Encoded(bytes))->view(), bytes);
  }
}

TEST(Base64Test, RefusesWhatNoEncoderWrites) {
  for (const std::string_view text : {"Z", "Zg", "Zg=", "Zm9v\n", "Zm9\n", "Zm9vZg==Zm9v", "====",
                                      "=Zg=", "Z===", "Zh==", "Zm9=", "Zm-_", "Zm 9", "Zg=v"})
    EXPECT_FALSE(base64Decoded(text)) << text;
}

TEST(UTF8Test, TellsWellFormedTextFromTheRest) {
  const std::pair<std::string_view, bool> cases[] = {
      {"", true},
      {"plain ASCII that is longer than a word", true},
      {"\xC2\x80", true},
      {"\xDF\xBF", true},
      {"\xE0\xA0\x80", true},
      {"\xED\x9F\xBF", true},
      {"\xEE\x80\x80", true},
      {"\xEF\xBF\xBF", true},
      {"\xF0\x90\x80\x80", true},
      {"\xF4\x8F\xBF\xBF", true},
      {"\x80", false},              // a continuation alone
      {"\xC1\xBF", false},          // over-long
      {"\xE0\x9F\xBF", false},      // over-long
      {"\xF0\x8F\xBF\xBF", false},  // over-long
      {"\xED\xA0\x80", false},      // a surrogate
      {"\xED\xBF\xBF", false},      // a surrogate
      {"\xF4\x90\x80\x80", false},  // past the last code point
      {"\xF5\x80\x80\x80", false},
      {"\xFF", false},
      {"\xC3", false},  // cut off
      {"\xE2\x98", false},
      {"\xF0\x9F\x8F", false},
      {"\xE2\x98\xC3\xA5", false},
      {"1234567\xC3\xA5"
       "12345678\xFF",
       false},
  };
  for (const auto& [bytes, valid] : cases) {
    EXPECT_EQ(platform::isValidUTF8(bytes), valid) << testing::PrintToString(bytes);
    // Wherever it stands in a text.
    EXPECT_EQ(platform::isValidUTF8("12345" + std::string(bytes) + "6789abcdef"), valid);
  }
}

TEST(StableHashTest, IsFNV1aForEver) {
  EXPECT_EQ(platform::stableHash(""), 0xCBF29CE484222325U);
  EXPECT_EQ(platform::stableHash("a"), 0xAF63DC4C8601EC8CU);
  EXPECT_EQ(platform::stableHash("foobar"), 0x85944171F73967E8U);
}

}  // namespace
