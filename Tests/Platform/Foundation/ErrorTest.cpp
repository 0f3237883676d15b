#include "Platform/Foundation/Error.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <set>

#include "Platform/Foundation/Exception.h"
#include "Platform/Foundation/UUID.h"
#include "Platform/Platform.h"

namespace {

TEST(ErrorTest, TellsDomainsApartByIdentity) {
  const auto one = platform::makeErrorDomain("Domain");
  const auto other = platform::makeErrorDomain("Domain");
  const platform::Error error(one, 3);
  EXPECT_TRUE(error.hasDomain(one));
  EXPECT_FALSE(error.hasDomain(other));
  EXPECT_EQ(platform::posixError(ENOSPC)->domainObject(), platform::posixErrorDomain());
}

TEST(ErrorTest, DescribesItself) {
  const auto domain = platform::makeErrorDomain("Domain");
  EXPECT_EQ(platform::Error(domain, -7, {{"NSLocalizedDescription", "It broke."}}).description(),
            "Error Domain=Domain Code=-7 \"It broke.\"");
  EXPECT_EQ(platform::Error(domain, 3).localizedDescription(),
            "The operation could not be completed. (Domain error 3.)");
  EXPECT_EQ(platform::posixError(ENOENT, "/a/b")->description(),
            "Error Domain=NSPOSIXErrorDomain Code=2 \"/a/b: No such file or directory\"");
  EXPECT_EQ(platform::description(platform::ErrorRef()), "(null)");
}

TEST(ExceptionTest, IsRaisedByAFailedAssertion) {
  try {
    platform::assertionFailure("must not be reached");
  } catch (const platform::Exception& exception) {
    EXPECT_EQ(exception.name(), "NSInternalInconsistencyException");
    EXPECT_EQ(exception.reason(), "must not be reached");
    EXPECT_STREQ(exception.what(), "NSInternalInconsistencyException: must not be reached");
  }
}

TEST(ExceptionDeathTest, WritesTheConditionOfAnAssertionAndAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(platform::abortOnFailedAssertion("count > 0"), testing::KilledBySignal(SIGABRT),
              "count > 0\n");
}

TEST(UUIDTest, IsUpperCaseOfTheRandomKindAndNeverTheSame) {
  const char form[] = "[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}";
  std::set<std::string> seen;
  for (int i = 0; i < 100; ++i) {
    const std::string uuid = platform::newUUIDString();
    EXPECT_THAT(uuid, testing::MatchesRegex(form));
    EXPECT_TRUE(seen.insert(uuid).second);
  }
}

}  // namespace
