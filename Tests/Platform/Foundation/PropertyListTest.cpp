#include "Platform/Foundation/PropertyList.h"
#include "Tests/Support/Testing.h"

namespace {

std::string xml(std::string_view content) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//X//EN\" "
         "\"http://x.example/P.dtd\">\n<plist version=\"1.0\">" +
         std::string(content) + "</plist>\n";
}

const auto readXML = [](std::string_view content) { return readPropertyList(Data(xml(content))); };

std::string repeated(std::string_view text, int count) {
  std::string result;
  for (int i = 0; i < count; ++i) result += text;
  return result;
}

/// Lays encoded objects out as a binary property list; the first is the root.
struct BinaryList {
  Texts objects = {};
  std::uint64_t root = 0;
  std::optional<std::uint64_t> tableOffset = {}, count = {};
  unsigned offsetSize = 2, referenceSize = 1;

  std::string bytes() const {
    std::string list = "bplist00", table;
    for (const std::string& object : objects) {
      table += bigEndian(list.size(), offsetSize);
      list += object;
    }
    return list + table + std::string(6, '\0') + bigEndian(offsetSize, 1) +
           bigEndian(referenceSize, 1) + bigEndian(count.value_or(objects.size()), 8) +
           bigEndian(root, 8) + bigEndian(tableOffset.value_or(list.size()), 8);
  }

  static std::string bigEndian(std::uint64_t value, unsigned width) {
    std::string text;
    for (auto at = width; at-- > 0;) text += static_cast<char>(at < 8 ? value >> (at * 8) : 0);
    return text;
  }
};

const auto readBinary = [](const BinaryList& list) { return readPropertyList(Data(list.bytes())); };

TEST(PropertyListTest, ReadsEveryKindOfAnXMLList) {
  const auto value = readXML(R"(<!-- a <dict> in a comment --><dict>
    <key>text &amp; more</key><string>a&lt;b<![CDATA[<c>]]>&#x263a;</string>
    <key>empty</key><string/>
    <key>count</key><integer>-12</integer>
    <key>greatest</key><integer>18446744073709551615</integer>
    <key>share</key><real>1.5</real>
    <key>on</key><true/>
    <key>off</key><false/>
    <key>bytes</key><data>AAH/</data>
    <key>when</key><date>2024-05-01T12:30:00Z</date>
    <key>list</key><array><integer>1</integer><dict/><array/></array></dict>)");
  ASSERT_TRUE(value);
  const Value expected{{"text & more", "a<b<c>\xE2\x98\xBA"},
                       {"empty", ""},
                       {"count", -12},
                       {"greatest", std::numeric_limits<std::uint64_t>::max()},
                       {"share", 1.5},
                       {"on", true},
                       {"off", false},
                       {"bytes", Data("\0\1\xFF", 3)},
                       {"when", Date(Date::Microseconds(1714566600000000))},
                       {"list", Array{1, Dictionary(), Array()}}};
  EXPECT_EQ(*value, expected) << value->description();
  EXPECT_EQ(value->description(), expected.description());
}

TEST(PropertyListTest, ReadsEveryKindOfABinaryList) {
  const std::string half("\x23\x3F\xF8\0\0\0\0\0\0", 9), date("\x33\xBF\xF8\0\0\0\0\0\0", 9);
  const BinaryList list{{"\xA9\x1\x2\x3\x4\x5\x6\x7\x8\x9", "\x09",
                         "\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFB", half, date, "\x53lap",
                         std::string("\x62\0G\0\xE5", 5), "\x42\1\2", "\xD1\x5\x9", "\x10\xC8"}};
  const auto value = readBinary(list);
  ASSERT_TRUE(value);
  EXPECT_EQ(*value, Value(Array{true, -5, 1.5, Date(Date::Microseconds(978307198500000)), "lap",
                                "G\xC3\xA5", Data("\1\2", 2), Value{{"lap", 200}}, 200}))
      << value->description();
  EXPECT_EQ(readBinary({{"\xD2\x1\x1\x2\x3", "\x51k", "\x10\x01", "\x10\x02"}}), (Value{{"k", 2}}))
      << "the last of a repeated key";
}

TEST(PropertyListTest, RefusesXMLThatIsMalformedOrHostile) {
  const auto expectRefused = [](const std::string& text) {
    ErrorRef error;
    EXPECT_FALSE(readPropertyList(Data(text), &error)) << text.substr(0, 200);
    EXPECT_NE(error, nullptr);
  };
  for (const char* text :
       {"", "plain text", "<plist version=\"1.0\"></plist>", "<plist version=\"1.0\"><dict>",
        "<!DOCTYPE plist [<!ENTITY a \"b\">]><plist><string>&a;</string></plist>"})
    expectRefused(text);
  for (const char* content :
       {"<dict><string>no key</string></dict>", "<array></dict>", "<unknown/>",
        "<string>\xFF</string>", "<string>&#xD800;</string>", "<string>&entity;</string>",
        "<date>9999-01-01T00:00:00Z</date>", "<!-- never ends <string>a</string>"})
    expectRefused(xml(content));
  expectRefused(xml(std::string("<string>a\0b</string>", 20)));
  expectRefused(xml("<string>" + std::string(1 << 20, 'a') + "</string>"));
  for (const int depth : {64, 100000})
    expectRefused(xml(repeated("<array>", depth) + repeated("</array>", depth)));
  EXPECT_TRUE(readXML(repeated("<array>", 63) + repeated("</array>", 63)));
  // What only seems to close, in a comment and in character data.
  expectRefused(xml(repeated("<array><!--</array>-->", 20000)));
  expectRefused(xml(repeated("<array><string><![CDATA[</string></array>]]></string>", 15000)));
}

TEST(PropertyListTest, RefusesBinaryListsThatAreMalformedOrHostile) {
  ASSERT_EQ(readBinary({{"\x08", "\x51x"}, 1}), Value("x"));
  const std::string longest((1 << 20) - 48, 'd');  // its list is as long as one may be
  EXPECT_EQ(readBinary({{"\x4F\x12" + BinaryList::bigEndian(longest.size(), 4) + longest}}),
            Value(Data(longest)));
  std::vector<BinaryList> cases = {
      {{}},
      {{std::string(1, '\0')}},  // the null object
      {{"\x80\x01"}},            // a reference of another kind of archive
      {{"\xC1\x01", "\x51x"}},   // a set
      {{"\x55x"}},               // text past the end
      {{"\x5F\x13\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFFx"}},
      {{"\x5F\x51x"}},                               // a length that is no integer
      {{"\x14" + std::string(16, '\1')}, 0, {}, 9},  // more objects than the table holds
      {{"\xA1\x07"}},                                // a reference past the table
      {{std::string("\xA1\0", 2)}},                  // an array that holds itself
      {{"\xA1\x01", std::string("\xA1\0", 2)}},
      {{"\xD1\x01\x02", "\x08", "\x09"}},                         // a key that is no text
      {{"\xD1\x01\x02", std::string("\x62\0a\0\0", 5), "\x09"}},  // a key with a NUL in UTF-16
      {{"\xD1\x01\x02", std::string("\x52k\0", 3), "\x09"}},      // and in ASCII
      {{"\x51\xE5"}},                                             // text that is not UTF-8
      {{"\x33\x7F\xEF\xFF\xFF\xFF\xFF\xFF\xFF"}},                 // a date past every calendar
      {{std::string("\x33\x41\xDF\xFF\xFF\xFF\xC0\0\0", 9)}},     // and past what the library
      {{std::string("\x33\x41\xE0\0\0\0\0\0\0", 9)}},             // counts in
      {{"\xD1\x01\x02", "\x51\xE5", "\x09"}},                     // a key that is not UTF-8
  };
  const Texts x{"\x51x"};  // in lists whose trailers lie
  const BinaryList lying[] = {{x, 0, {}, {}, 0}, {x, 0, {}, {}, 2, 0},
                              {x, 0, {}, {}, 9}, {x, 0, {}, {}, 2, 9},
                              {x, 0, 1 << 20},   {x, 0, {}, std::uint64_t{1} << 62},
                              {x, 0, 7},         {x, 1}};
  cases.insert(cases.end(), std::begin(lying), std::end(lying));
  // Nested too deeply; and small, but unfolding to two to the 40th objects.
  for (const auto& [levels, fanOut] : {std::pair(100, 1), std::pair(40, 2)}) {
    BinaryList list;
    for (int i = 1; i <= levels; ++i)
      list.objects.push_back(std::string(1, static_cast<char>(0xA0 + fanOut)) +
                             std::string(static_cast<std::size_t>(fanOut), static_cast<char>(i)));
    list.objects.push_back("\x09");
    cases.push_back(list);
  }
  // One long text that is referred to very often.
  BinaryList longText{{"\xAF\x12" + BinaryList::bigEndian(60000, 4) + std::string(60000, '\1'),
                       "\x5F\x12" + BinaryList::bigEndian(60000, 4) + std::string(60000, 'a')}};
  longText.offsetSize = 4;
  cases.push_back(longText);
  for (std::size_t i = 0; i < cases.size(); ++i) EXPECT_FALSE(readBinary(cases[i])) << "case " << i;
}

}  // namespace
