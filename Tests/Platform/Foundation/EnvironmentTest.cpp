#include <gtest/gtest.h>

#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>

#include "Platform/Foundation/EnvironmentMonitor.h"
#include "Platform/Foundation/Locale.h"
#include "Platform/Foundation/NotificationCenter.h"
#include "Platform/Foundation/TimeZone.h"
#include "Platform/Platform.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace {

using platform::Locale;
using platform::NotificationCenter;
using platform::TimeZone;
using skelda::testing::writeFile;

/// A system of the test's own: no variables, and a folder for its files.
class EnvironmentTest : public testing::Test {
 protected:
  EnvironmentTest() {
    for (const char* const name : {"LC_ALL", "LC_MESSAGES", "LANG", "TZ"})
      environment_.set(name, std::nullopt);
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

  skelda::testing::ScopedEnvironment environment_;
  skelda::testing::TemporaryDirectory root_;
};

TEST_F(EnvironmentTest, ReadsLanguageAndCountryOfALocaleName) {
  const auto locale = [this](const std::string& name) {
    environment_.set("LANG", name);
    return Locale::current(root_.path());
  };
  EXPECT_EQ(locale("en_GB.UTF-8"), (Locale{"en", "GB"}));
  EXPECT_EQ(locale("ast_ES.utf8@euro"), (Locale{"ast", "ES"}));
  EXPECT_EQ(locale("EN_gb"), (Locale{"en", "GB"}));
  EXPECT_EQ(locale("eo"), (Locale{"eo", {}}));
  EXPECT_EQ(locale("de@phonebook"), (Locale{"de", {}}));
  for (const std::string& name :
       {std::string("C"), std::string("C.UTF-8"), std::string("POSIX"), std::string("e_GB"),
        std::string("en_"), std::string("en_GBR"), std::string("en-GB"), std::string("en_G\n"),
        std::string("../../etc/passwd"), std::string(100000, 'a')})
    EXPECT_EQ(locale(name), Locale()) << name.substr(0, 40);
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
  std::filesystem::create_directories(root_ / "usr/share/zoneinfo");
  writeFile(root_ / "usr/share/zoneinfo/EST5EDT", "");
  const auto zone = [this](const std::string& value) {
    environment_.set("TZ", value);
    return TimeZone::local(root_.path()).name;
  };
  for (const char* const name : {"Europe/Oslo", "Etc/GMT+5", "UTC", "EST5EDT"})
    EXPECT_EQ(zone(name), name);
  EXPECT_EQ(zone(":America/Argentina/Buenos_Aires"), "America/Argentina/Buenos_Aires");
  EXPECT_EQ(zone("/usr/share/zoneinfo/posix/Asia/Tokyo"), "Asia/Tokyo");
  EXPECT_EQ(zone(""), "UTC");
  for (const std::string& rule :
       {std::string("CET-1CEST"), std::string("CET-1CEST,M3.5.0,M10.5.0/3"), std::string("<+03>-3"),
        std::string("/etc/localtime"), std::string("../../secret"), std::string("Europe//Oslo"),
        std::string("Europe/Oslo/"), std::string("Europe/Os lo"), std::string(100000, 'a')})
    EXPECT_EQ(zone(rule), std::nullopt) << rule.substr(0, 40);
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

/// Counts what is posted, so that a test can wait for it.
class Posts {
 public:
  explicit Posts(std::string_view name)
      : token_(NotificationCenter::defaultCenter().addObserver(
            name, [this](const platform::Notification&) {
              const std::lock_guard guard(lock_);
              ++count_;
              changed_.notify_all();
            })) {}
  ~Posts() { NotificationCenter::defaultCenter().removeObserver(token_); }

  bool reaches(int count) {
    std::unique_lock guard(lock_);
    return changed_.wait_for(guard, std::chrono::seconds(20), [&] { return count_ >= count; });
  }
  int count() {
    const std::lock_guard guard(lock_);
    return count_;
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  int count_ = 0;
  NotificationCenter::Token token_;
};

TEST_F(EnvironmentTest, PostsWhenWhatTheFilesSayHasChanged) {
  Posts locale(platform::kCurrentLocaleDidChangeNotification);
  Posts zone(platform::kSystemTimeZoneDidChangeNotification);
  std::filesystem::remove(root_ / "etc/default");
  replace("etc/locale.conf", "LANG=en_GB\n");
  link("/usr/share/zoneinfo/Europe/Oslo");
  const platform::EnvironmentMonitor monitor(root_.path());

  link("/usr/share/zoneinfo/Europe/Paris");
  ASSERT_TRUE(zone.reaches(1));
  // The same said in other words is no change; the zone's change behind it tells when it was seen.
  replace("etc/locale.conf", "LANG=\"en_GB.UTF-8\"\n");
  link("/usr/share/zoneinfo/Europe/Rome");
  ASSERT_TRUE(zone.reaches(2));
  EXPECT_EQ(locale.count(), 0);
  std::filesystem::remove(root_ / "etc/locale.conf");
  ASSERT_TRUE(locale.reaches(1));
  // A folder that comes later is watched too.
  std::filesystem::create_directory(root_ / "etc/default");
  replace("etc/default/locale", "LANG=nb_NO\n");
  ASSERT_TRUE(locale.reaches(2));
  replace("etc/default/locale", "LANG=sv_SE\n");
  ASSERT_TRUE(locale.reaches(3));
  EXPECT_EQ(zone.count(), 2);
}

TEST_F(EnvironmentTest, NoticesTheLastOfAThousandQuickChanges) {
  const std::string locales[] = {"LANG=en_GB\n", "LANG=C\n", "LANG=", "\xff\n", "LANG=sv_SE\n"};
  const char* const zones[] = {"/usr/share/zoneinfo/Europe/Rome", "/nowhere", "localtime",
                               "/usr/share/zoneinfo/../../secret",
                               "/usr/share/zoneinfo/Europe/Oslo"};
  struct Seen {
    const std::string root;
    std::mutex lock;
    std::condition_variable changed;
    Locale locale;
    TimeZone zone;
  };
  // Held by the observers: one may still run when it has been removed.
  const std::shared_ptr<Seen> seen(new Seen{root_.path(), {}, {}, {}, {}});
  const auto look = [seen](const platform::Notification&) {
    const std::lock_guard guard(seen->lock);
    seen->locale = Locale::current(seen->root);
    seen->zone = TimeZone::local(seen->root);
    seen->changed.notify_all();
  };
  auto& center = NotificationCenter::defaultCenter();
  const auto tokens = {center.addObserver(platform::kCurrentLocaleDidChangeNotification, look),
                       center.addObserver(platform::kSystemTimeZoneDidChangeNotification, look)};
  {
    const platform::EnvironmentMonitor monitor(root_.path());
    for (std::size_t i = 0; i < 1000; ++i) {
      replace("etc/locale.conf", locales[i % 5]);
      link(zones[i % 5]);
    }
    std::unique_lock guard(seen->lock);
    EXPECT_TRUE(seen->changed.wait_for(guard, std::chrono::seconds(20), [&] {
      return seen->locale == Locale{"sv", "SE"} && seen->zone.name == "Europe/Oslo";
    }));
  }
  for (const auto token : tokens) center.removeObserver(token);
}

}  // namespace
