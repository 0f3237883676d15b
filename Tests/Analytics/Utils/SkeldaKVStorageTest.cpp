#include "Analytics/Utils/SkeldaKVStorage.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <functional>

#include "Platform/Foundation/KeyedArchive.h"
#include "Tests/Support/AgentHome.h"
#include "Tests/Support/FaultyFiles.h"

namespace skelda::testing {
namespace {

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::Value;

class KVStorageTest : public ::testing::Test {
 protected:
  static SkeldaKVStorage& store() { return *SkeldaKVStorage::sharedInstance(); }
  /// What the file alone tells.
  static void restart() { SkeldaKVStorage::resetSharedInstance(); }

  AgentHome home_;
  const std::string path_ = home_.storageFolder() + "Skelda.KV.storage";
};

TEST_F(KVStorageTest, EveryKindSurvivesARestart) {
  EXPECT_EQ(SkeldaKVStorage::defaultFilePath(), path_);
  EXPECT_EQ(store().allKeys().size(), 0u);
  EXPECT_NE(readFile(path_), "") << "an empty store is written out at once";
  store().setInteger(-42, "integer");
  store().setBoolean(true, "boolean");
  store().setFloat(0.1F, "float");
  store().setDouble(2.5, "double");
  store().setString("text", "string");
  store().setData(Data("\0\xff", 2), "data");
  store().setObject(Array{1, Dictionary{{"a", platform::Date()}}}, "object");
  store().setObjectForKeyedSubscript("gone", "gone");
  EXPECT_EQ(store()["gone"], Value("gone")) << "a read sees the writes before it";
  store().removeObjectForKey("gone");
  EXPECT_TRUE(store().isPersisted());
  restart();
  EXPECT_EQ(store().integerForKey("integer"), -42);
  EXPECT_TRUE(store().booleanForKey("boolean"));
  EXPECT_EQ(store().floatForKey("float"), 0.1F);
  EXPECT_EQ(store().objectForKey("float").kind(), Value::Kind::real32);
  EXPECT_EQ(store().doubleForKey("double"), 2.5);
  EXPECT_EQ(store().stringForKey("string"), "text");
  EXPECT_EQ(store().dataForKey("data"), Data("\0\xff", 2));
  EXPECT_EQ(store().objectForKey("object"), Value(Array{1, Dictionary{{"a", platform::Date()}}}));
  EXPECT_EQ(store().integerForKey("string", 3), 3) << "another kind is no value";
  EXPECT_EQ(store().stringForKey("integer"), std::nullopt);
  EXPECT_TRUE(store().booleanForKey("absent", true));
  store().removeAllObjects();
  restart();
  EXPECT_EQ(store().allKeys().size(), 0u);
}

TEST_F(KVStorageTest, NilKeysAndWhatNoPropertyListHoldsAreRefused) {
  Value deep = 1;
  for (int i = 0; i < 100; ++i) deep = Value(Array{std::move(deep)});
  for (const Value& refused : {Value(), Value(Array{nullptr}), Value(Dictionary{{"a", nullptr}}),
                               Value("\xff"), Value(Dictionary{{"\xff", 1}}), deep}) {
    store().setObject(refused, "key");
  }
  store().setObject(1, std::nullopt);
  store().setString(std::nullopt, "key");
  EXPECT_EQ(store().allKeys().size(), 0u);
  EXPECT_TRUE(store().isPersisted());
}

TEST_F(KVStorageTest, AForeignOrMalformedFileIsAnEmptyStore) {
  SkeldaUtil::filePathDirectory();
  for (const std::string& content :
       {std::string(), std::string("garbage"), std::string("{\"archive\":\"skelda\",\"version\":1"),
        platform::archivedData({"NSArray", Array{1, 2}}).string(), std::string(100, '[')}) {
    writeFile(path_, content);
    restart();
    EXPECT_EQ(store().allKeys().size(), 0u) << content;
    store().setInteger(1, "one");
    restart();
    EXPECT_EQ(store().integerForKey("one"), 1) << content;
  }
}

TEST_F(KVStorageTest, WhatStandsInTheFilesPlaceAndIsNoneIsSetAside) {
  const std::pair<const char*, std::function<void()>> cases[] = {
      {"a folder", [&] { std::filesystem::create_directories(path_ + "/inside"); }},
      {"a pipe", [&] { ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0); }},
      {"a link", [&] { std::filesystem::create_symlink("/dev/zero", path_); }},
  };
  SkeldaUtil::filePathDirectory();
  for (const auto& [what, make] : cases) {
    std::filesystem::remove(path_);
    make();
    restart();
    EXPECT_TRUE(store().isReadable()) << what;
    EXPECT_TRUE(store().storeObject(1, "one")) << what;
    restart();
    EXPECT_EQ(store().integerForKey("one"), 1) << what;
  }
  std::size_t aside = 0;
  for (const auto& entry :
       std::filesystem::directory_iterator(std::filesystem::path(path_).parent_path())) {
    aside += entry.path().string().starts_with(path_ + ".unread_") ? 1 : 0;
  }
  EXPECT_EQ(aside, std::size(cases));
}

TEST_F(KVStorageTest, AFileThatCannotBeReadJustNowIsNotOverwritten) {
  store().setInteger(57, "counter");
  store().setInteger(1, "removed");
  EXPECT_TRUE(store().isPersisted());
  restart();
  const std::string before = readFile(path_);
  const auto plan = std::make_shared<FaultPlan>();
  {
    FaultyFileCalls calls(plan);
    plan->failKind("open", 1, {.error = EMFILE, .times = Fault::kForEver});
    store().setInteger(2, "new");
    store().removeObjectForKey("removed");
    EXPECT_EQ(store().integerForKey("new"), 2);
    EXPECT_FALSE(store().isPersisted());
    plan->clear();
    plan->failKind("read", 1, {.error = EIO, .times = Fault::kForEver});
    EXPECT_EQ(store().integerForKey("counter"), 0);
    EXPECT_FALSE(store().isReadable());
    EXPECT_EQ(readFile(path_), before);
    EXPECT_GE(plan->faults(), 4u);
  }
  EXPECT_EQ(store().integerForKey("counter"), 57) << "read again when it can be";
  EXPECT_TRUE(store().isPersisted());
  restart();
  EXPECT_EQ(store().integerForKey("counter"), 57);
  EXPECT_EQ(store().integerForKey("new"), 2);
  EXPECT_TRUE(store()["removed"].isNull());
}

TEST_F(KVStorageTest, AChangeThatCouldNotBeWrittenGoesWithTheNextOne) {
  store().setInteger(1, "one");
  EXPECT_TRUE(store().isPersisted());
  const std::string before = readFile(path_);
  const auto plan = std::make_shared<FaultPlan>();
  {
    FaultyFileCalls calls(plan);
    for (const auto kind : {"open", "write", "syncData", "close", "rename"}) {
      plan->failKind(kind, 1, {.error = ENOSPC});
      EXPECT_FALSE(store().storeObject(2, "two")) << kind;
      EXPECT_EQ(readFile(path_), before) << kind;
    }
  }
  EXPECT_EQ(store().integerForKey("two"), 2) << "kept in memory";
  EXPECT_TRUE(store().storeObject(3, "three"));
  restart();
  EXPECT_EQ(store().integerForKey("two"), 2);
}

}  // namespace
}  // namespace skelda::testing
