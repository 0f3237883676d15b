#include "Analytics/Utils/SkeldaKeychainWrapper.h"
#include "Analytics/Utils/SkeldaStreamFileHandle.h"
#include "Analytics/Utils/SkeldaStreamFileManager.h"
#include "Platform/Security/Keychain.h"
#include "Tests/Support/AgentHome.h"

namespace {

struct StreamFilesTest : testing::Test {
  StreamFilesTest() { writeFile(path_, "0123456789"); }

  TemporaryDirectory directory_;
  const std::string path_ = directory_ / "file";
  const std::string absent_ = directory_ / "absent";
  const FaultyFileCalls plan_;
  SkeldaStreamFileManager manager_;
  SkeldaStreamFileHandle handle_;
  ErrorRef error_;
};

TEST_F(StreamFilesTest, EveryFailureOfThePlatformIsReportedByTheManager) {
  const std::string folder = directory_ / "folder";
  const std::pair<const char*, std::function<bool()>> cases[] = {
      {"makeDirectory", [&] { return manager_.createIfNotPresentDirectoryAtPath(folder); }},
      {"renameNoReplace", [&] { return manager_.copyFileFrom(path_, folder); }},
      {"unlink", [&] { return manager_.removeItemAtPath(path_); }},
      {"open", [&] { return manager_.createFileAtPath(folder); }},
      {"entries",
       [&] { return manager_.fileNamesAtPath(directory_.path(), &error_).has_value(); }}};
  for (const auto& [kind, operation] : cases) {
    plan_->failKind(kind, 1, {.error = EMFILE});
    EXPECT_FALSE(operation()) << kind;
  }
  EXPECT_EQ(plan_->faults(), std::size(cases));
  EXPECT_EQ(codeOf(error_), EMFILE);
  plan_->failKind("statusAt", 1, {.error = EIO});
  EXPECT_TRUE(manager_.isFilePresentAtPath(absent_)) << "cannot say is not absent";
  EXPECT_FALSE(manager_.isFilePresentAtPath(absent_));
}

TEST_F(StreamFilesTest, NilPathsAreRefused) {
  EXPECT_FALSE(manager_.createFileAtPath(std::nullopt) || manager_.truncateFileAtPath({}) ||
               manager_.removeItemAtPath({}) || manager_.isFilePresentAtPath({}) ||
               manager_.createIfNotPresentDirectoryAtPath({}) || manager_.copyFileFrom({}, path_) ||
               manager_.copyFileFrom(path_, {}));
  EXPECT_EQ(manager_.fileNamesAtPath(std::nullopt, &error_), std::nullopt);
  EXPECT_EQ(codeOf(error_), 12);
  EXPECT_EQ(plan_->calls(), 0u);
  EXPECT_FALSE(handle_.isOpenFile(std::nullopt));
  handle_.openForWritingFile(std::nullopt, &error_);
  EXPECT_EQ(codeOf(error_), 1);
  for (const auto& noURL : {std::string(), std::string("a\0b", 3), std::string("\xff")}) {
    handle_.openForReadingFile(noURL, &error_);
    EXPECT_EQ(codeOf(error_), 2);
  }
}

TEST_F(StreamFilesTest, EveryFailureOfThePlatformBecomesAnErrorOfTheHandle) {
  // The last numbers are the codes of the platform's failure, and without a handle.
  const std::tuple<const char*, std::function<bool()>, int, int> cases[] = {
      {"read", [&] { return handle_.readDataOfLength(4, &error_).has_value(); }, 4, 1},
      {"read", [&] { return handle_.availableDataWithError(&error_).has_value(); }, 4, 1},
      {"write", [&] { return handle_.writeData(Data("lost"), &error_), error_ == nullptr; }, 6, 1},
      {"alwaysAppend", [&] { return handle_.seekToEndOfFile(); }, 0, 0},
      {"truncate", [&] { return handle_.truncateFileToZeroBytes(); }, 0, 0},
      {"syncData", [&] { return handle_.synchronizeFile(); }, 0, 0}};
  for (const auto& [kind, operation, code, closedCode] : cases) {
    handle_.openForReadingFile(path_, nullptr);
    plan_->failKind(kind);
    error_ = nullptr;
    EXPECT_FALSE(operation()) << kind;
    EXPECT_EQ(codeOf(error_), code) << kind;
    plan_->failKind("close");
    handle_.closeFile();
    EXPECT_FALSE(operation()) << kind;
    EXPECT_EQ(codeOf(error_), closedCode) << kind;
  }
  EXPECT_EQ(readFile(path_), "0123456789");
  plan_->failKind("open", 1, {.error = EMFILE});
  handle_.openForWritingFile(path_, &error_);
  EXPECT_EQ(codeOf(error_), 5);
  EXPECT_FALSE(handle_.isOpenFile(path_));
  EXPECT_EQ(plan_->faults(), 2 * std::size(cases) + 1);
  handle_.openForWritingFile(path_, &error_);
  handle_.writeData(std::nullopt, &error_);
  EXPECT_EQ(codeOf(error_), 1);
  EXPECT_EQ(handle_.readDataOfLength(0, &error_), std::nullopt);
  EXPECT_EQ(codeOf(error_), 1);
}

struct KVStorageTest : testing::Test {
  static SkeldaKVStorage& store() { return *SkeldaKVStorage::sharedInstance(); }
  static void restart() { SkeldaKVStorage::resetSharedInstance(); }

  AgentHome home_;
  const std::string path_ = home_.storageFolder() + "Skelda.KV.storage";
};

TEST_F(KVStorageTest, EveryKindSurvivesARestart) {
  EXPECT_EQ(store().allKeys().size(), 0u);
  EXPECT_NE(readFile(path_), "") << "an empty store is written out at once";
  store().setInteger(-42, "integer");
  store().setBoolean(true, "boolean");
  store().setFloat(0.1F, "float");
  store().setDouble(2.5, "double");
  store().setString("text", "string");
  store().setData(Data("\0\xff", 2), "data");
  store().setObject(Array{1, Dictionary{{"a", Date()}}}, "object");
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
  EXPECT_EQ(store().objectForKey("object"), Value(Array{1, Dictionary{{"a", Date()}}}));
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
                               Value("\xff"), Value(Dictionary{{"\xff", 1}}), deep})
    store().setObject(refused, "key");
  store().setObject(1, std::nullopt);
  store().setString(std::nullopt, "key");
  EXPECT_EQ(store().allKeys().size(), 0u);
  EXPECT_TRUE(store().isPersisted());
}

TEST_F(KVStorageTest, WhatIsNoStoreIsAnEmptyOneAndIsSetAsideWhereItIsNoFile) {
  const auto list = archivedData({"NSArray", Array{1, 2}});
  const std::function<void()> cases[] = {
      [&] { writeFile(path_, ""); },
      [&] { writeFile(path_, "garbage"); },
      [&] { writeFile(path_, "{\"archive\":\"skelda\",\"version\":1"); },
      [&] { writeFile(path_, list.view()); },
      [&] { writeFile(path_, std::string(100, '[')); },
      [&] { std::filesystem::create_directories(path_ + "/inside"); },
      [&] { ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0); },
      [&] { std::filesystem::create_symlink("/dev/zero", path_); }};
  SkeldaUtil::filePathDirectory();
  for (const auto& make : cases) {
    SCOPED_TRACE(&make - cases);
    std::filesystem::remove(path_);
    make();
    restart();
    EXPECT_EQ(store().allKeys().size(), 0u);
    EXPECT_TRUE(store().isReadable());
    EXPECT_TRUE(store().storeObjects({{"one", 1}}));
    restart();
    EXPECT_EQ(store().integerForKey("one"), 1);
  }
  EXPECT_EQ(setAsideOf(path_).size(), 3u);
}

TEST_F(KVStorageTest, AFileThatCannotBeReadJustNowIsNotOverwritten) {
  store().setInteger(57, "counter");
  store().setInteger(1, "removed");
  EXPECT_TRUE(store().isPersisted());
  restart();
  const std::string before = readFile(path_);
  const FaultyFileCalls plan("open", Fault::always(EMFILE));
  store().setInteger(2, "new");
  store().removeObjectForKey("removed");
  EXPECT_EQ(store().integerForKey("new"), 2);
  EXPECT_FALSE(store().isPersisted());
  plan->clear();
  plan->failAll("read", EIO);
  EXPECT_EQ(store().integerForKey("counter"), 0);
  EXPECT_FALSE(store().isReadable());
  EXPECT_EQ(readFile(path_), before);
  EXPECT_GE(plan->faults(), 4u);
  plan->clear();
  for (const bool restarted : {false, true}) {  // read again when it can be
    if (restarted) restart();
    EXPECT_EQ(store().integerForKey("counter"), 57);
    EXPECT_TRUE(store().isPersisted());
  }
  EXPECT_EQ(store().integerForKey("new"), 2);
  EXPECT_TRUE(store()["removed"].isNull());
}

TEST_F(KVStorageTest, AChangeThatCouldNotBeWrittenGoesWithTheNextOne) {
  store().setInteger(1, "one");
  EXPECT_TRUE(store().isPersisted());
  const std::string before = readFile(path_);
  const FaultyFileCalls plan;
  for (const auto kind : {"open", "write", "syncData", "close", "rename"}) {
    plan->failKind(kind, 1, {.error = ENOSPC});
    EXPECT_FALSE(store().storeObjects({{"two", 2}})) << kind;
    EXPECT_EQ(readFile(path_), before) << kind;
  }
  EXPECT_EQ(store().integerForKey("two"), 2) << "kept in memory";
  EXPECT_TRUE(store().storeObjects({{"three", 3}}));
  restart();
  EXPECT_EQ(store().integerForKey("two"), 2);
}

struct KeychainWrapperTest : testing::Test {
  ~KeychainWrapperTest() override { DeviceLock::setLocked(false); }
  const TemporaryHome home;
};

TEST_F(KeychainWrapperTest, TheServiceIsTheBundlesIdentifierAndTheGivenOne) {
  const HostBundle nameless;
  EXPECT_EQ(SkeldaKeychainWrapper("id").identifier(), "id");
  const HostBundle bundle({{"CFBundleIdentifier", "com.example.run"}});
  const auto wrapper = SkeldaKeychainWrapper::keychainWrapperWithIdentifier("id");
  EXPECT_EQ(wrapper->identifier(), "com.example.runid");
  EXPECT_TRUE(wrapper->setString("mine", "key"));
  EXPECT_EQ(SkeldaKeychainWrapper("other").stringForKey("key"), std::nullopt);
  EXPECT_TRUE(kSkeldaKeychainIdentifier.ends_with(".analytics"));
}

TEST_F(KeychainWrapperTest, WhatCannotBeReadJustNowIsNotAbsent) {
  SkeldaKeychainWrapper wrapper(kSkeldaKeychainIdentifier);
  EXPECT_TRUE(wrapper.isAbsent("key"));
  EXPECT_TRUE(wrapper.setString("one", "key"));
  EXPECT_FALSE(wrapper.isAbsent("key"));
  DeviceLock::setLocked(true);
  EXPECT_FALSE(wrapper.isAbsent("key"));
  DeviceLock::setLocked(false);
  for (const char* call : {"open", "read", "status"}) {
    const FaultyFileCalls plan(call, {.error = EMFILE});
    EXPECT_FALSE(wrapper.isAbsent("key")) << call;
    EXPECT_EQ(plan->faults(), 1u) << call;
  }
}

TEST_F(KeychainWrapperTest, ValuesComeBackAndDuplicatesReplaceThem) {
  SkeldaKeychainWrapper wrapper(kSkeldaKeychainIdentifier);
  EXPECT_TRUE(wrapper.setString("one", "key") && wrapper.setThisDeviceString("two", "key"));
  EXPECT_EQ(wrapper.stringForKey("key"), "two");
  DeviceLock::setLocked(true);
  EXPECT_EQ(wrapper.stringForKey("key"), std::nullopt) << "the first accessibility is kept";
  EXPECT_FALSE(wrapper.setString("three", "key"));
  EXPECT_TRUE(wrapper.setThisDeviceString("here", "device"));
  EXPECT_EQ(wrapper.stringForKey("device"), "here");
  DeviceLock::setLocked(false);

  EXPECT_TRUE(wrapper.setObject(KeyedArchive{"Thing", {{"a", 1}}}, "object"));
  EXPECT_EQ(wrapper.objectForKey("object")->className, "Thing");
  EXPECT_FALSE(wrapper.objectForKey("key").has_value());
  EXPECT_TRUE(wrapper.setData(Data("\xff"), "bytes"));
  EXPECT_EQ(wrapper.dataForKey("bytes"), Data("\xff"));
  EXPECT_EQ(wrapper.stringForKey("bytes"), std::nullopt);
  EXPECT_TRUE(wrapper.updateValueData(Data("new"), "bytes"));
  EXPECT_EQ(wrapper.stringForKey("bytes"), "new");
  EXPECT_TRUE(wrapper.removeObjectForKey("bytes"));
  EXPECT_EQ(wrapper.dataForKey("bytes"), std::nullopt);
  EXPECT_FALSE(wrapper.setString("x", "") || wrapper.setString(std::nullopt, "k") ||
               wrapper.updateValueData(Data("x"), "absent") ||
               wrapper.removeObjectForKey("absent"));
}

}  // namespace
