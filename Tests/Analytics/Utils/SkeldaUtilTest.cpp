#include "Analytics/Utils/SkeldaDateUtil.h"
#include "Analytics/Utils/SkeldaJSON.h"
#include "Analytics/Utils/SkeldaLog.h"

#include "Platform/Foundation/URLError.h"
#include "Tests/Support/AgentHome.h"

namespace {

struct SkeldaUtilTest : testing::Test {
  ~SkeldaUtilTest() override { SkeldaUtil::setShowErrorInLogEnabled(false); }
  AgentHome home_;
  LogCapture log_;
};

TEST_F(SkeldaUtilTest, LinesAreFormattedOnlyWhereLevelAndReaderAskForThem) {
  int formatted = 0;
  const auto argument = [&] { return ++formatted; };
  SKELDA_LOG(1, "{}", argument());
  EXPECT_EQ(formatted, 0);
  SKELDA_LOG(0, "{}", argument());
  SkeldaUtil::setLogLevel(2);
  SKELDA_LOG(2, "{}", argument());
  SKELDA_LOG(3, "{}", argument());
  EXPECT_EQ(log_.take(), (Texts{"1", "2"}));
  Log::setSink({});
  SKELDA_LOG(0, "{}", argument());
  EXPECT_EQ(formatted, 2);
}

TEST_F(SkeldaUtilTest, CaughtThingsOfAnyKindAreShownOnDemand) {
  const auto thrown = [](const auto& thing) { return std::make_exception_ptr(thing); };
  const std::exception_ptr caught[] = {thrown(Exception("Name", "reason", Value("info"))),
                                       thrown(std::out_of_range("far")), thrown(urlError(7)),
                                       thrown(Value(5)), thrown(3.5)};
  SkeldaUtil::setLogLevel(2);
  for (const bool shown : {false, true}) {
    SkeldaUtil::setShowErrorInLogEnabled(shown);
    for (const auto& one : caught) {
      SkeldaUtil::handleException(one);
      EXPECT_EQ(log_.take().empty(), !shown);
    }
  }
  SkeldaUtil::handleException(std::exception_ptr());
}

TEST_F(SkeldaUtilTest, QueueAndThreadAssertionsRaise) {
  const auto queue = Queue::serial("asserted");
  EXPECT_THROW(SkeldaUtil::assertRunningOnQueue(queue), Exception);
  EXPECT_NO_THROW(SkeldaUtil::assertNotRunningOnQueue(queue));
  EXPECT_NO_THROW(SkeldaUtil::assertThreadIsNotMain());
  queue->sync([&] {
    EXPECT_NO_THROW(SkeldaUtil::assertRunningOnQueue(queue));
    EXPECT_THROW(SkeldaUtil::assertNotRunningOnQueue(queue), Exception);
  });
}

TEST_F(SkeldaUtilTest, TheStorageFolderIsMadeOnceAndRemembered) {
  SkeldaUtil::setLogLevel(2);
  const std::string folder = home_ / "data/com.example.run/SkeldaFiles";
  const HostBundle named({{"CFBundleIdentifier", "com.example.run"}});
  writeFile(home_ / "data", "in the way");
  EXPECT_EQ(SkeldaUtil::filePathDirectory(), folder) << "where it cannot be made";
  EXPECT_EQ(log_.take(), Texts{});
  ASSERT_TRUE(SkeldaUtil::removeObjectAtPath(home_ / "data"));
  inThreads(4, [&](unsigned) { EXPECT_EQ(SkeldaUtil::filePathDirectory(), folder); });
  EXPECT_TRUE(SkeldaUtil::dataExistsAtPath(folder));
  EXPECT_EQ(log_.take(), Texts{"Skelda: SkeldaSession directory path [" + folder + "]"});
  const HostBundle nameless({}, "/y.appex");
  AgentHome::forget();
  EXPECT_EQ(SkeldaUtil::filePathDirectory(), home_ / "data/y.appex/SkeldaFiles");
}

TEST_F(SkeldaUtilTest, ArchivesComeBackAndMalformedOnesAreDeleted) {
  SkeldaUtil::setLogLevel(2);
  const std::string path = home_ / "archive";
  EXPECT_TRUE(SkeldaUtil::archiveObject(Value{{"a", 1}}, path));
  EXPECT_EQ(SkeldaUtil::safeUnarchiveObjectWithFile(path)->className, "NSDictionary");
  EXPECT_TRUE(SkeldaUtil::archiveObject(KeyedArchive{"Thing", "root"}, path));
  EXPECT_EQ(SkeldaUtil::safeUnarchiveObjectWithFile(path)->root, Value("root"));
  EXPECT_FALSE(SkeldaUtil::archiveDictionary(Value(1), path));
  EXPECT_FALSE(SkeldaUtil::archiveObject(Value("text"), home_ / "absent/archive"));
  ErrorRef error;
  const FaultyFileCalls plan;
  for (const auto& [kind, code] : {std::pair{"open", EMFILE}, {"read", EIO}, {"open", EACCES}}) {
    plan->failKind(kind, 1, {.error = code});
    EXPECT_FALSE(SkeldaUtil::safeUnarchiveObjectWithFile(path, &error).has_value());
    EXPECT_EQ(codeOf(error), code);
  }
  EXPECT_TRUE(SkeldaUtil::safeUnarchiveObjectWithFile(path, &error).has_value());
  EXPECT_EQ(error, nullptr);
  writeFile(path, "{\"archive\":");
  for (const auto& none :
       {std::optional<std::string>(), {""}, {home_ / "no"}, {path + "/no"}, {path}}) {
    EXPECT_FALSE(SkeldaUtil::safeUnarchiveObjectWithFile(none, &error).has_value());
    EXPECT_EQ(error, nullptr);
  }
  EXPECT_FALSE(SkeldaUtil::dataExistsAtPath(path));
}

TEST_F(SkeldaUtilTest, TextsAreEncodedAndDecoded) {
  const std::pair<std::string, std::optional<std::string>> texts[] = {
      {"pace", "cGFjZQ=="}, {"\xc3\xa9", "w6k="}, {"", {}}, {"\xff", {}}};
  for (const auto& [plain, encoded] : texts) {
    EXPECT_EQ(SkeldaUtil::string2Base64UTF8String(plain), encoded);
    EXPECT_TRUE(!encoded || SkeldaUtil::base64EncodedString2UTF8String(encoded) == plain) << plain;
  }
  for (const auto bad : {"", "a", "/w==", "cGFj\nZQ=="})
    EXPECT_EQ(SkeldaUtil::base64EncodedString2UTF8String(bad), std::nullopt) << bad;
  SkeldaUtil::setLogLevel(1);
  const Dictionary encoded = SkeldaUtil::dictionary2Base64UTF8Dictionary(
      {{"a", "x"}, {"b", 5}, {"c", true}, {"", "k"}, {"d", ""}, {"e", nullptr}, {"f", "\xff"}});
  EXPECT_EQ(encoded, (Dictionary{{"YQ==", "eA=="}, {"Yg==", "NQ=="}, {"Yw==", "MQ=="}}));
  EXPECT_EQ(log_.take().size(), 4u) << "one line for each that is left out";

  EXPECT_EQ(SkeldaUtil::dataFromHexString("00Ab-7f"), Data("\x00\xab\x7f", 3));
  EXPECT_EQ(SkeldaUtil::dataFromHexString(SkeldaUtil::generateCFUUID())->length(), 16u);
  for (auto bad : {"0", "0g", "abc", " 00"})
    EXPECT_FALSE(SkeldaUtil::dataFromHexString(bad)) << bad;
  const std::string accented = "a\xc3\xa9\xe2\x82\xac";  // 1, 2 and 3 bytes
  const std::size_t kept[] = {0, 1, 1, 3, 3, 3, 6, 6};
  for (std::size_t length = 0; length < std::size(kept); ++length)
    EXPECT_EQ(SkeldaUtil::trimString(accented, length), accented.substr(0, kept[length]));
  EXPECT_EQ(SkeldaUtil::trimString("\x80\x80\x80", 1), "") << "nothing but ends";
  EXPECT_EQ(SkeldaUtil::hexadecimalStringForData(Data("\x9f\x05", 2)), "9f05");
  EXPECT_EQ(SkeldaJSON::skeldaJsonStringWithPrettyPrint({{"k", 1}}, false), R"({"k":1})");
}

TEST_F(SkeldaUtilTest, IdentifiersAreStableAndNeverTheMachinesOwn) {
  const SystemFolder system;
  EXPECT_EQ(SkeldaUtil::getSkeldaId(), std::nullopt);
  EXPECT_EQ(SkeldaUtil::getIdentifierForVendor(), std::nullopt);
  const std::string machine = "0123456789abcdef0123456789abcdef";
  writeFile(system / "etc/machine-id", machine + "\n");
  const auto identifier = SkeldaUtil::getSkeldaId();
  ASSERT_TRUE(identifier);
  EXPECT_EQ(identifier, SkeldaUtil::getSkeldaId());
  EXPECT_EQ(identifier->size(), 32u);
  EXPECT_NE(*identifier, machine);
  const HostBundle named({{"CFBundleIdentifier", "com.example.run"}});
  EXPECT_NE(identifier, SkeldaUtil::getSkeldaId());
  EXPECT_TRUE(SkeldaUtil::getIdentifierForVendor());
}

TEST_F(SkeldaUtilTest, CountersLoseNothingAmongThreads) {
  inThreads(4, [](unsigned) {
    for (int i = 0; i < 1000; ++i) SkeldaUtil::incrementCounter("raced");
  });
  EXPECT_EQ(SkeldaUtil::allCounters().at("raced"), 4000);
}

TEST(SkeldaDateUtilTest, IntervalsAreTruncatedToMillisecondsAndHeldInTheirRange) {
  const std::pair<double, std::int64_t> intervals[] = {
      {1.9999, 1999}, {-1.9999, -1999}, {1e300, INT64_MAX}, {-1e300, INT64_MIN}, {std::nan(""), 0}};
  for (const auto& [seconds, milliseconds] : intervals)
    EXPECT_EQ(SkeldaDateUtil::skeldaTimeIntervalFromNSTimeInterval(seconds), milliseconds);
  const auto date = [](std::int64_t us) { return Date(Date::Microseconds(us)); };
  EXPECT_EQ(SkeldaDateUtil::timeIntervalSince1970InMilliseconds(date(-1999)), -1);
  EXPECT_TRUE(SkeldaDateUtil::isEqualToDateInMilliseconds(date(1000), date(1999)));
  EXPECT_FALSE(SkeldaDateUtil::isEqualToDateInMilliseconds(date(1999), date(2000)));
  const std::array<std::int64_t, 3> differences[] = {
      {2000, -2, 2},   {1000, 5999, -4}, {INT64_MAX, INT64_MIN, 18446744073709551},
      {5999, 1000, 4}, {-1001, 998, -1}, {INT64_MIN, INT64_MAX, -18446744073709551},
      {2000, 1001, 0}, {3001, -1999, 5}};
  for (const auto& [later, earlier, milliseconds] : differences)
    EXPECT_EQ(SkeldaDateUtil::timeIntervalSinceDateInMilliseconds(date(later), date(earlier)),
              milliseconds);
  EXPECT_EQ(SkeldaDateUtil::dateWithTimeIntervalSince1970InMilliseconds(INT64_MAX),
            date(INT64_MAX / 1000 * 1000));
}

}  // namespace
