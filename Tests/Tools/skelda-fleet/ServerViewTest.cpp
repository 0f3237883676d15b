#include "Tools/skelda-collector/Stream/ServerView.h"

#include "Tests/Support/Testing.h"

namespace {

TEST(ServerView, TellsWhatIsElsewhereFromWhatIsStillToCome) {
  ServerView leader, follower;
  for (const char* id : {"a", "b", "c", "d", "e", "f"}) leader.add(id, leader.last + 1);
  follower.add("a", 1);
  follower.add("B", 2);  // another one at the place of b, and nothing at that of c
  follower.add("d", 4);
  const std::vector<std::string> logs = {"a", "b", "c", "d", "e", "f", "of nobody"};
  EXPECT_EQ(leader.elsewhereIn(follower, logs), (std::vector<std::string>{"b", "c"}));
  EXPECT_TRUE(leader.elsewhereIn(leader, logs).empty());
  EXPECT_TRUE(leader.elsewhereIn({}, logs).empty()) << "of nothing all is still to come";
}

TEST(ServerView, KeepsTheLastPlaceOfALogAndNamesTheOthers) {
  ServerView view;
  for (const char* id : {"a", "b", "a", "a"}) view.add(id, view.last + 1);
  EXPECT_EQ(view.repeated, (std::vector<std::uint64_t>{1, 3}));
  EXPECT_EQ(view.places.at("a"), 4U);
}

}  // namespace
