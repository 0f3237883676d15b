#include "Analytics/Utils/SkeldaKeychainWrapper.h"

#include <gtest/gtest.h>

#include "Platform/Foundation/Bundle.h"
#include "Platform/Security/Keychain.h"
#include "Tests/Support/FaultyFiles.h"
#include "Tests/Support/TemporaryDirectory.h"

namespace skelda::testing {
namespace {

using platform::Data;
using platform::KeyedArchive;

class KeychainWrapperTest : public ::testing::Test {
 protected:
  ~KeychainWrapperTest() override {
    platform::DeviceLock::setLocked(false);
    platform::Bundle::setMain(nullptr);
  }
  static void becomeBundle(platform::Dictionary information) {
    platform::Bundle::setMain(
        std::make_shared<const platform::Bundle>("/x.appex", "/x.appex/x", std::move(information)));
  }
  TemporaryHome home_;
};

TEST_F(KeychainWrapperTest, TheServiceIsTheBundlesIdentifierAndTheGivenOne) {
  becomeBundle({});
  EXPECT_EQ(SkeldaKeychainWrapper("id").identifier(), "id");
  becomeBundle({{"CFBundleIdentifier", "com.example.run"}});
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
  platform::DeviceLock::setLocked(true);
  EXPECT_FALSE(wrapper.isAbsent("key"));
  platform::DeviceLock::setLocked(false);
  for (const char* call : {"open", "read", "status"}) {
    const auto plan = std::make_shared<FaultPlan>();
    const FaultyFileCalls calls(plan);
    plan->failKind(call, 1, {.error = EMFILE});
    EXPECT_FALSE(wrapper.isAbsent("key")) << call;
    EXPECT_EQ(plan->faults(), 1u) << call;
  }
}

TEST_F(KeychainWrapperTest, ValuesComeBackAndDuplicatesReplaceThem) {
  SkeldaKeychainWrapper wrapper(kSkeldaKeychainIdentifier);
  EXPECT_TRUE(wrapper.setString("one", "key"));
  EXPECT_TRUE(wrapper.setThisDeviceString("two", "key"));
  EXPECT_EQ(wrapper.stringForKey("key"), "two");
  platform::DeviceLock::setLocked(true);
  EXPECT_EQ(wrapper.stringForKey("key"), std::nullopt) << "the first accessibility is kept";
  EXPECT_FALSE(wrapper.setString("three", "key"));
  EXPECT_TRUE(wrapper.setThisDeviceString("here", "device"));
  EXPECT_EQ(wrapper.stringForKey("device"), "here");
  platform::DeviceLock::setLocked(false);

  EXPECT_TRUE(wrapper.setObject(KeyedArchive{"Thing", {{"a", 1}}}, "object"));
  EXPECT_EQ(wrapper.objectForKey("object")->className, "Thing");
  EXPECT_EQ(wrapper.objectForKey("key").has_value(), false);
  EXPECT_TRUE(wrapper.setData(Data("\xff"), "bytes"));
  EXPECT_EQ(wrapper.dataForKey("bytes"), Data("\xff"));
  EXPECT_EQ(wrapper.stringForKey("bytes"), std::nullopt);
  EXPECT_TRUE(wrapper.updateValueData(Data("new"), "bytes"));
  EXPECT_EQ(wrapper.stringForKey("bytes"), "new");
  EXPECT_TRUE(wrapper.removeObjectForKey("bytes"));
  EXPECT_EQ(wrapper.dataForKey("bytes"), std::nullopt);

  EXPECT_FALSE(wrapper.setString("x", "") || wrapper.setString(std::nullopt, "k"));
  EXPECT_FALSE(wrapper.updateValueData(Data("x"), "absent"));
  EXPECT_FALSE(wrapper.removeObjectForKey("absent"));
}

}  // namespace
}  // namespace skelda::testing
