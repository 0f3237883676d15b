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

TEST(Base64Test, RefusesWhatNoEncoderWrites) {
  for (const std::string_view text : {"Z", "Zg", "Zg=", "Zm9v\n", "Zm9\n", "Zm9vZg==Zm9v", "====",
                                      "=Zg=", "Z===", "Zh==", "Zm9=", "Zm-_", "Zm 9", "Zg=v"})
    EXPECT_FALSE(base64Decoded(text)) << text;
}

TEST(UTF8Test, TellsWellFormedTextFromTheRest) {
  // Wherever it stands in a text.
  const auto around = [](std::string_view bytes) {
    return "12345" + std::string(bytes) + "6789abcdef";
  };
  for (const std::string_view text : {"", "\xC2\x80", "\xE0\xA0\x80", "\xED\x9F\xBF",
                                      "\xEF\xBF\xBF", "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(platform::isValidUTF8(text)) << testing::PrintToString(text);
    EXPECT_TRUE(platform::isValidUTF8(around(text))) << testing::PrintToString(text);
  }
  const std::string_view broken[] = {"\x80", "\xFF", "\xC3", "\xF0\x9F\x8F", "\xE2\x98\xC3\xA5",
                                     // over-long
                                     "\xC1\xBF", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF",
                                     // surrogates
                                     "\xED\xA0\x80", "\xED\xBF\xBF",
                                     // past the last code point
                                     "\xF4\x90\x80\x80"};
  for (const std::string_view text : broken) {
    EXPECT_FALSE(platform::isValidUTF8(text)) << testing::PrintToString(text);
    EXPECT_FALSE(platform::isValidUTF8(around(text))) << testing::PrintToString(text);
  }
}

TEST(StableHashTest, IsFNV1aForEver) {
  EXPECT_EQ(platform::stableHash(""), 0xCBF29CE484222325U);
  EXPECT_EQ(platform::stableHash("a"), 0xAF63DC4C8601EC8CU);
  EXPECT_EQ(platform::stableHash("foobar"), 0x85944171F73967E8U);
}

}  // namespace
