#include "Platform/Foundation/EnvironmentMonitor.h"
#include "Platform/Foundation/Locale.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/TimeZone.h"
#include "Tests/Support/Testing.h"

namespace {

constexpr std::string_view kInformation =
    "<plist version=\"1.0\"><dict><key>CFBundleIdentifier</key><string>com.example.run</string>"
    "<key>Number</key><integer>7</integer></dict></plist>";

struct BundleTest : testing::Test {
  /// The bundle above a program in `folder`, below the test's own folder.
  std::shared_ptr<const Bundle> above(const std::string& folder) {
    std::filesystem::create_directories(root_ / folder);
    return Bundle::above(root_ / folder + "/program");
  }

  TemporaryDirectory root_;
  LogCapture log_;
};

TEST_F(BundleTest, IsTheNearestFolderAboveTheProgramWithAnInformationDictionary) {
  writeFile(root_ / "Run.app/Info.plist", "<plist><dict/></plist>");
  writeFile(root_ / "Run.app/PlugIns/Info.plist", kInformation);
  writeFile(root_ / "Run.app/PlugIns/Watch.appex/Info.plist", kInformation);
  const auto bundle = above("Run.app/PlugIns/Watch.appex/bin/Inner.app");
  EXPECT_EQ(bundle->bundlePath(), root_ / "Run.app/PlugIns/Watch.appex");
  EXPECT_EQ(bundle->executablePath(), root_ / "Run.app/PlugIns/Watch.appex/bin/Inner.app/program");
  EXPECT_EQ(bundle->bundleIdentifier(), "com.example.run");
  EXPECT_EQ(bundle->objectForInfoDictionaryKey("Number"), Value(7));
  EXPECT_TRUE(bundle->objectForInfoDictionaryKey("Absent").isNull());
  EXPECT_EQ(above("Run.app/bin")->bundlePath(), root_ / "Run.app");
  EXPECT_EQ(log_.take().size(), 0u);
}

TEST_F(BundleTest, HasAnEmptyDictionaryAndOneLineWhereThereIsNoFileOrOneThatIsNone) {
  const auto bundle = above("plain.apple/bin");
  EXPECT_EQ(bundle->bundlePath(), root_ / "plain.apple/bin") << "the program's own folder";
  EXPECT_TRUE(bundle->infoDictionary().empty());
  EXPECT_EQ(bundle->bundleIdentifier(), std::nullopt);
  EXPECT_EQ(log_.take().size(), 1u);
  const std::string information = root_ / "Run.app/Info.plist";
  writeFile(information, std::string(2 << 20, 'a'));
  EXPECT_TRUE(above("Run.app")->infoDictionary().empty());
  EXPECT_EQ(log_.take().size(), 1u);
  // A pipe without a writer would hold a plain read for ever.
  std::filesystem::remove(information);
  ASSERT_EQ(::mkfifo(information.c_str(), 0600), 0);
  EXPECT_TRUE(above("Run.app")->infoDictionary().empty());
}

/// A system of the test's own: no variables, and a folder for its files.
struct EnvironmentTest : testing::Test {
  EnvironmentTest() {
    for (const auto name : {"LC_ALL", "LC_MESSAGES", "LANG", "TZ"}) environment_.set(name, {});
    std::filesystem::create_directories(root_ / "etc/default");
  }

  void link(const std::string& target) {
    const std::string fresh = root_ / "etc/localtime.new";
    std::filesystem::create_symlink(target, fresh);
    std::filesystem::rename(fresh, root_ / "etc/localtime");
  }

  void replace(const std::string& name, std::string_view text) {
    writeFile(root_ / "new", text);
    std::filesystem::rename(root_ / "new", root_ / name);
  }

  ScopedEnvironment environment_;
  TemporaryDirectory root_;
};

TEST_F(EnvironmentTest, ReadsLanguageAndCountryOfALocaleName) {
  const auto locale = [this](const std::string& name) {
    environment_.set("LANG", name);
    return Locale::current(root_.path());
  };
  const std::pair<const char*, Locale> cases[] = {
      {"en_NZ.UTF-8", {"en", "NZ"}},    {"ast_ES.utf8@euro", {"ast", "ES"}},
      {"EN_gb", {"en", "GB"}},          {"eo", {"eo", {}}},
      {"es_419.UTF-8", {"es", "419"}},  {"zh_Hans_CN", {"zh", "CN"}},
      {"sr_Latn@modifier", {"sr", {}}}, {"de@phonebook", {"de", {}}}};
  for (const auto& [name, expected] : cases) EXPECT_EQ(locale(name), expected) << name;
  for (const char* name : {"C", "C.UTF-8", "POSIX", "e_GB", "en_", "en_GBR", "en-GB", "en_G\n",
                           "en_41", "en_4190", "zh_Hans_", "../../etc/passwd"})
    EXPECT_EQ(locale(name), Locale()) << name;
  EXPECT_EQ(locale(std::string(100000, 'a')), Locale());
}

TEST_F(EnvironmentTest, TakesTheFirstSourceThatNamesALocale) {
  EXPECT_EQ(Locale::current(root_.path()), Locale());
  writeFile(root_ / "etc/default/locale", "# comment\nexport LANG='nb_NO.UTF-8'\nLANGUAGE=x\n");
  EXPECT_EQ(Locale::current(root_.path()), (Locale{"nb", "NO"}));
  writeFile(root_ / "etc/locale.conf", "LANG=\"fr_FR.UTF-8\"\r\n LC_MESSAGES=fr_CA\n");
  EXPECT_EQ(Locale::current(root_.path()), (Locale{"fr", "CA"}));
  environment_.set("LANG", "en_US");
  environment_.set("LC_MESSAGES", "");
  EXPECT_EQ(Locale::current(root_.path()), (Locale{"en", "US"}));
  // Set, it decides, even to say that there is no locale.
  environment_.set("LC_ALL", "C");
  EXPECT_EQ(Locale::current(root_.path()), Locale());
}

TEST_F(EnvironmentTest, NamesTheTimeZoneOfTheVariable) {
  writeFile(root_ / "usr/share/zoneinfo/EST5EDT", "");
  const auto zone = [this](const std::string& value) {
    environment_.set("TZ", value);
    return TimeZone::local(root_.path()).name;
  };
  for (const auto* name : {"Europe/Oslo", "Etc/GMT+5", "UTC", "EST5EDT"})
    EXPECT_EQ(zone(name), name);
  EXPECT_EQ(zone(":America/Argentina/Buenos_Aires"), "America/Argentina/Buenos_Aires");
  EXPECT_EQ(zone("/usr/share/zoneinfo/posix/Asia/Tokyo"), "Asia/Tokyo");
  EXPECT_EQ(zone(""), "UTC");
  for (const char* rule : {"CET-1CEST", "CET-1CEST,M3.5.0,M10.5.0/3", "<+03>-3", "/etc/other",
                           "../../secret", "Europe//Oslo", "Europe/Oslo/", "Europe/Os lo"})
    EXPECT_EQ(zone(rule), std::nullopt) << rule;
  EXPECT_EQ(zone(std::string(100000, 'a')), std::nullopt);
  EXPECT_EQ(zone("/etc/localtime"), std::nullopt);
  link("../usr/share/zoneinfo/Asia/Kolkata");
  EXPECT_EQ(zone(":/etc/localtime"), "Asia/Kolkata") << "the system's own, by another way";
}

TEST_F(EnvironmentTest, NamesTheTimeZoneOfTheSystemsFiles) {
  EXPECT_EQ(TimeZone::local(root_.path()).name, std::nullopt);
  writeFile(root_ / "etc/timezone", "\n Europe/Paris \n");
  EXPECT_EQ(TimeZone::local(root_.path()).name, "Europe/Paris");
  link("../usr/share/zoneinfo/right/Asia/Kolkata");
  EXPECT_EQ(TimeZone::local(root_.path()).name, "Asia/Kolkata");
  link("/somewhere/else");
  EXPECT_EQ(TimeZone::local(root_.path()).name, "Europe/Paris");
  writeFile(root_ / "etc/timezone", std::string(1 << 20, 'a'));
  EXPECT_EQ(TimeZone::local(root_.path()).name, std::nullopt);
}

class Observer {
 public:
  explicit Observer(const std::string& root) {
    for (const std::string_view name :
         {kCurrentLocaleDidChangeNotification, kSystemTimeZoneDidChangeNotification}) {
      // The record is shared: an observer may still run when it has been removed.
      const auto look = [seen = seen_, root, name](const Notification&) {
        seen->add({name, Locale::current(root), TimeZone::local(root)});
      };
      tokens_.push_back(NotificationCenter::defaultCenter().addObserver(name, look));
    }
  }
  ~Observer() {
    for (const auto token : tokens_) NotificationCenter::defaultCenter().removeObserver(token);
  }
  bool sees(std::ptrdiff_t locales, std::ptrdiff_t zones) {
    return seen_->waitUntil([&](const auto& all) {
      const auto told = std::ranges::count(all, kCurrentLocaleDidChangeNotification, &Sight::name);
      return told == locales && std::ssize(all) - told == zones;
    });
  }
  bool sees(const Locale& locale, const char* zone) {
    return seen_->waitUntil([&](const auto& all) {
      return !all.empty() && all.back().locale == locale && all.back().zone.name == zone;
    });
  }

 private:
  struct Sight {
    std::string_view name;
    Locale locale;
    TimeZone zone;
  };
  std::shared_ptr<Recorded<Sight>> seen_ = std::make_shared<Recorded<Sight>>();
  std::vector<NotificationCenter::Token> tokens_;
};

TEST_F(EnvironmentTest, PostsWhenWhatTheFilesSayHasChanged) {
  Observer observer(root_.path());
  std::filesystem::remove(root_ / "etc/default");
  replace("etc/locale.conf", "LANG=en_GB\n");
  link("/usr/share/zoneinfo/Europe/Oslo");
  const EnvironmentMonitor monitor(root_.path());

  link("/usr/share/zoneinfo/Europe/Paris");
  ASSERT_TRUE(observer.sees(0, 1));
  // The same said in other words is no change; the zone's change behind it tells when it was seen.
  replace("etc/locale.conf", "LANG=\"en_GB.UTF-8\"\n");
  link("/usr/share/zoneinfo/Europe/Rome");
  ASSERT_TRUE(observer.sees(0, 2));
  std::filesystem::remove(root_ / "etc/locale.conf");
  ASSERT_TRUE(observer.sees(1, 2));
  std::filesystem::create_directory(root_ / "etc/default");
  replace("etc/default/locale", "LANG=nb_NO\n");
  ASSERT_TRUE(observer.sees(2, 2));
  replace("etc/default/locale", "LANG=sv_SE\n");
  ASSERT_TRUE(observer.sees(3, 2));
}

TEST_F(EnvironmentTest, NoticesTheLastOfAThousandQuickChanges) {
  const std::string locales[] = {"LANG=en_GB\n", "LANG=C\n", "LANG=", "\xff\n", "LANG=sv_SE\n"};
  const char* const zones[] = {"/usr/share/zoneinfo/Europe/Rome", "/nowhere", "localtime",
                               "/usr/share/zoneinfo/../../secret",
                               "/usr/share/zoneinfo/Europe/Oslo"};
  Observer observer(root_.path());
  const EnvironmentMonitor monitor(root_.path());
  for (std::size_t i = 0; i < 1000; ++i) {
    replace("etc/locale.conf", locales[i % 5]);
    link(zones[i % 5]);
  }
  EXPECT_TRUE(observer.sees(Locale{"sv", "SE"}, "Europe/Oslo"));
}

}  // namespace
