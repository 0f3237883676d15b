#include "Platform/Foundation/Error.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <set>

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
