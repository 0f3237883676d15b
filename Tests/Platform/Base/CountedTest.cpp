#include "Platform/Base/Counted.h"

#include "Tests/Support/Testing.h"

namespace {

struct Seen {
  explicit Seen(int* ends, bool refuses = false) : ends_(ends) {
    if (refuses) throw std::runtime_error("refused");
  }
  ~Seen() { ++*ends_; }
  int* ends_;
};
struct Sharing : Seen, std::enable_shared_from_this<Sharing> {
  using Seen::Seen;
};

TEST(Counted, EndsOnceWithItsLastHolderWhileWhoKnowsOfItStays) {
  int ends = 0;
  std::weak_ptr<const Seen> known;
  {
    const auto held = makeCounted<const Seen>(&ends);
    known = held;
    EXPECT_EQ(std::shared_ptr<const Seen>(held).use_count(), 2);
  }
  EXPECT_EQ(ends, 1);
  EXPECT_TRUE(known.expired());
}

TEST(Counted, GivesTheRoomBackOfOneThatIsNotMadeAndTellsOneThatSharesItself) {
  int ends = 0;
  EXPECT_THROW(makeCounted<Seen>(&ends, true), std::runtime_error);
  EXPECT_EQ(ends, 0);
  const auto held = makeCounted<Sharing>(&ends);
  EXPECT_EQ(held->shared_from_this(), held);
}

}  // namespace
