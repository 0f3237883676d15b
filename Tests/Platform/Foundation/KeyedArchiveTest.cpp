#include "Platform/Foundation/KeyedArchive.h"

#include <gtest/gtest.h>

#include <limits>

#include "Platform/Foundation/Exception.h"
#include "Platform/Platform.h"

namespace {

using platform::Array;
using platform::Dictionary;
using platform::KeyedArchive;
using platform::Value;

std::string archived(const Value& root) {
  return platform::archivedData({"NSDictionary", root}).string();
}

TEST(KeyedArchiveTest, BringsEveryKindBackAsItWentIn) {
  const double infinity = std::numeric_limits<double>::infinity();
  const Value cases[] = {
      nullptr,
      Array{true, -5, std::numeric_limits<std::int64_t>::min(), 5U,
            std::numeric_limits<std::uint64_t>::max()},
      Array{3.0, -0.0, 0.1, 5e-324, std::numeric_limits<double>::max(), -infinity},
      std::numeric_limits<double>::quiet_NaN(),
      Array{0.1F, 0x1.5c87fap-84F, std::numeric_limits<float>::max(), static_cast<float>(infinity)},
      Array{"text \"\n\xC3\xA5", "not UTF-8: \xFF", std::string("nul \0 inside", 12)},
      Array{platform::Data("\0\xFF", 2), platform::Data(), Array(), Dictionary()},
      Array{platform::Date(platform::Date::Microseconds(-1)), platform::Date::distantFuture()},
      {{"b", 1}, {"a", {{"c", 2.5F}}}},
      {{"$data", "looks like a tag"}},
      {{"$dict", {{"$dict", 1}}}},
      {{"$data", 1}, {"and", 2}},
      {{"\xFF", {{"\xFE", 1U}}}, {"$x", "\xFD"}},
  };
  for (const Value& value : cases) {
    const KeyedArchive again = platform::unarchivedObject(platform::archivedData({"Class", value}));
    EXPECT_EQ(again.className, "Class");
    EXPECT_EQ(again.root.kind(), value.kind()) << value.description();
    // The text tells kinds apart at every depth, where equality does not.
    EXPECT_EQ(archived(again.root), archived(value));
    EXPECT_EQ(again.root, value) << value.description();
  }
}

TEST(KeyedArchiveTest, IsAReadableText) {
  EXPECT_EQ(archived({{"at", platform::Date(platform::Date::Microseconds(12))},
                      {"bytes", platform::Data("lap", 3)},
                      {"n", 1}}),
            R"({"archive":"skelda","version":1,"class":"NSDictionary","root":)"
            R"({"at":{"$date":12},"bytes":{"$data":"bGFw"},"n":1}})");
}

TEST(KeyedArchiveTest, RefusesWhatIsNotAnArchive) {
  const auto with = [](std::string_view root) {
    return R"({"archive":"skelda","version":1,"class":"C","root":)" + std::string(root) + "}";
  };
  const auto expectRefused = [](const std::string& text) {
    try {
      platform::unarchivedObject(platform::Data(text));
      ADD_FAILURE() << "was taken: " << text;
    } catch (const platform::Exception& exception) {
      EXPECT_EQ(exception.name(), "NSInvalidUnarchiveOperationException");
    }
  };
  ASSERT_NO_THROW(platform::unarchivedObject(platform::Data(with("{}"))));
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
  EXPECT_EQ(platform::unarchivedObject(platform::archivedData({"C", deep})).root, deep);
  for (int i = 0; i < 10; ++i) deep = Array{std::move(deep)};
  EXPECT_THROW(platform::archivedData({"C", deep}), platform::Exception);
  EXPECT_THROW(platform::archivedData({"\xFF", 1}), platform::Exception);
}

}  // namespace
