#include "Tools/skelda-collector/Stream/ServerView.h"

#include <algorithm>

#include "Tests/Support/Testing.h"

namespace {

TEST(ServerView, TellsWhatIsElsewhereFromWhatIsStillToCome) {
  ServerView leader, follower;
  for (const char* id : {"a", "b", "c", "d", "e", "f"}) leader.add(id, leader.last + 1);
  follower.add("a", 1);
  follower.add("B", 2);  // another one at the place of b, and nothing at that of c
  follower.add("d", 4);
  const auto elsewhere = [&](const ServerView& other, std::uint64_t first) {
    auto found = leader.elsewhereIn(other, first);
    std::ranges::sort(found);
    return found;
  };
  EXPECT_EQ(elsewhere(follower, 1), (std::vector<std::string>{"b", "c"}));
  EXPECT_EQ(elsewhere(follower, 3), std::vector<std::string>{"c"});
  EXPECT_TRUE(elsewhere(leader, 1).empty());
  EXPECT_TRUE(elsewhere({}, 1).empty()) << "of nothing all is still to come";
}

TEST(ServerView, KeepsTheLastPlaceOfALogAndNamesThoseToBeGivenUp) {
  ServerView view;
  for (const char* id : {"a", "b", "a", "a"}) view.add(id, view.last + 1);
  EXPECT_EQ(view.repeated, (std::vector<std::uint64_t>{1, 3}));
  EXPECT_EQ(view.places.at("a"), 4U);

  ServerView leader;
  leader.add("b", 2);
  leader.add("a", 4);
  view.add("gone", 5);  // what the leader does not have at all is not given up
  auto left = leader.leftIn(view, 1);
  std::ranges::sort(left);
  EXPECT_EQ(left, (std::vector<std::uint64_t>{1, 3}));
  EXPECT_EQ(leader.leftIn(view, 2), (std::vector<std::uint64_t>{3}));
}

}  // namespace
