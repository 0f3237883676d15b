// What a start finds in the intake file that an earlier process left.

#include "Tests/Analytics/Intake/Account/IntakeFiles.h"
#include "Tests/Support/FaultyFiles.h"

namespace skelda::testing {
namespace {

using Kind = SkeldaIntakeFile::Kind;
using Outcome = SkeldaIntakeOutcome;

class SkeldaIntakeOpeningTest : public ::testing::Test, protected IntakeFiles {};

std::vector<std::string> payloadsOf(SkeldaIntakeFile& file) {
  std::vector<std::string> payloads;
  while (const auto record = file.takeOldest()) payloads.push_back(record->payload);
  return payloads;
}

TEST_F(SkeldaIntakeOpeningTest, ASettlingThatAKillCutShortIsCompleted) {
  using namespace SkeldaIntakeLayout;
  // The stores of one settling, in their order; the kill comes after the first few of them.
  const std::vector<std::function<void(Page&, Slot&)>> stores = {
      [](Page& page, Slot&) { page.intentCounter = 3; },
      [](Page& page, Slot&) { page.intentValue = 1; },
      [](Page& page, Slot& slot) { page.intentTicket = slot.place.word(); },
      [](Page& page, Slot& slot) {
        slot.record.state = State{slot.place.generation(), 0, State::settled}.word(page.salt);
      },
      [](Page& page, Slot&) { page.account.settled[0][3] = 1; },
      [](Page& page, Slot&) { page.intentTicket = 0; },
      [](Page& page, Slot& slot) {
        page.settled[0] = Place(slot.place.generation(), slot.record.units()).word();
      }};
  for (std::size_t kill = 0; kill <= stores.size(); ++kill) {
    std::filesystem::remove(path_);
    SkeldaIntakeTicket ticket = 0;
    {
      const auto file = open();
      for (const char* payload : {"one", "two", "three"}) append(*file, payload);
      ticket = file->takeOldest().value().ticket;
    }
    editFile(path_, [&](char* bytes) {
      const Place place(ticket);
      auto& page = *reinterpret_cast<Page*>(bytes);
      auto& record = *reinterpret_cast<Record*>(bytes + SkeldaIntakeFile::kHeaderLength +
                                                place.units() * SkeldaIntakeFile::kAlignment);
      Slot slot{place, record};
      for (std::size_t i = 0; i < kill; ++i) stores[i](page, slot);
    });
    const auto file = open();
    const bool isSettled = kill > 2;
    EXPECT_EQ(file->page().settled[0][3], isSettled ? 1U : 0U) << kill;
    EXPECT_TRUE(addsUp(*file)) << kill;
    EXPECT_EQ(file->opening().cutOff[0], 0U) << kill;
    EXPECT_EQ(payloadsOf(*file).size(), isSettled ? 2U : 3U) << kill;
  }
}

TEST_F(SkeldaIntakeOpeningTest, WhatStartsDieOfIsTakenAloneAndDroppedInTheEnd) {
  for (const char* payload : {"poison", "harmless"}) append(*open(), payload);
  for (unsigned start = 0; start < SkeldaIntakeFile::kAttemptsBesideOthers; ++start) {
    const auto file = open();
    EXPECT_EQ(payloadsOf(*file).size(), 2U) << start;
    EXPECT_EQ(file->page().replayed[0], 2U) << "each counts once, at start " << start;
  }
  for (unsigned start = 0; start < SkeldaIntakeFile::kAttemptsAlone; ++start) {
    EXPECT_EQ(payloadsOf(*open()), std::vector<std::string>{"poison"}) << start;
  }
  const auto file = open();
  EXPECT_EQ(file->opening().replayedTooOften, 1U);
  const auto record = file->takeOldest().value();
  EXPECT_EQ(record.payload, "harmless");
  EXPECT_TRUE(record.isReplayed && record.isOfThisBoot);
  append(*file, "new");
  EXPECT_FALSE(file->hasUntaken());
  EXPECT_TRUE(file->settle(record.ticket, Outcome::stored));
  EXPECT_EQ(payloadsOf(*file), std::vector<std::string>{"new"});
  EXPECT_EQ(file->page().replayed[0], 2U);
  EXPECT_TRUE(addsUp(*file));
}

TEST_F(SkeldaIntakeOpeningTest, RecordsOfAnotherKeyOrVersionAreDroppedWithThatReason) {
  append(*open(), "one", Kind::choice);
  {
    const auto file = open(kKey + 1);
    EXPECT_EQ(file->opening().otherKey, 1U);
    EXPECT_FALSE(file->hasUntaken());
  }
  append(*SkeldaIntakeFile::open(directory_ / ".intake_260.journal", kCapacity, kKey + 1), "two");
  {
    const auto file = open(kKey + 1);
    EXPECT_EQ(file->opening().otherVersion, 1U);
    append(*file, "three");
  }
  // Both versions' files side by side: the other one's account is added and its file goes.
  std::filesystem::copy(path_, directory_ / ".intake_9.journal");
  const auto file = open(kKey + 1);
  EXPECT_EQ(namesIn(directory_.path()), std::vector<std::string>{".intake_261.journal"});
  EXPECT_EQ(payloadsOf(*file), std::vector<std::string>{"three"});
  EXPECT_EQ(file->opening().otherVersion, 1U);
  const auto& page = file->page();
  const auto& settled = page.settled;
  EXPECT_EQ(settled[1][static_cast<std::size_t>(Outcome::otherKey)], 2U);
  EXPECT_EQ(settled[0][static_cast<std::size_t>(Outcome::otherVersion)], 3U);
  EXPECT_TRUE(addsUp(*file));
}

TEST_F(SkeldaIntakeOpeningTest, WhatIsNoIntakeFileIsSetAsideAndBegunAnew) {
  const std::function<void()> damages[] = {
      [&] { writeFile(path_, ""); },
      [&] { writeFile(path_, std::string(4096 + kCapacity, '\0')); },
      [&] { std::filesystem::resize_file(path_, 4096 + kCapacity - 1); },
      [&] { editFile(path_, [](char* bytes) { ++bytes[24]; }); },   // its salt
      [&] { editFile(path_, [](char* bytes) { ++bytes[150]; }); },  // where a segment was left
      [&] { std::filesystem::remove(path_), std::filesystem::create_directory(path_); },
      [&] { std::filesystem::remove(path_), ::mkfifo(path_.c_str(), 0600); },
      [&] {
        std::filesystem::rename(path_, path_ + ".unread_by_hand");
        std::filesystem::create_symlink(path_ + ".unread_by_hand", path_);
      }};
  for (const auto& damage : damages) {
    append(*open(), "lost");
    damage();
    const auto file = open();
    EXPECT_TRUE(file->opening().setAside.starts_with(path_ + ".unread_"));
    EXPECT_TRUE(std::filesystem::exists(std::filesystem::symlink_status(file->opening().setAside)));
    EXPECT_NE(append(*file, "one"), kSkeldaNoTicket);
    EXPECT_TRUE(addsUp(*file));
    EXPECT_EQ(payloadsOf(*open()), std::vector<std::string>{"one"});
    for (const auto& name : namesIn(directory_.path()))
      std::filesystem::remove_all(directory_ / name);
  }
}

TEST_F(SkeldaIntakeOpeningTest, AnAccountThatDoesNotAddUpIsCorrectedAndSaid) {
  struct {
    std::uint64_t accepted, cutOff;
    bool isInconsistent;
  } const cases[] = {{3, 2, false}, {1 + 65, 65, true}, {0, 0, true}};
  for (const auto& [accepted, cutOff, isInconsistent] : cases) {
    std::filesystem::remove(path_);
    {
      const auto file = open();
      append(*file, "one");
      file->page().accepted[0] = accepted;
    }
    const auto file = open();
    EXPECT_EQ(file->opening().cutOff[0], cutOff) << accepted;
    EXPECT_EQ(file->opening().wasInconsistent, isInconsistent) << accepted;
    EXPECT_EQ(file->page().inconsistent, isInconsistent ? 1U : 0U) << accepted;
    EXPECT_TRUE(addsUp(*file)) << accepted;
    EXPECT_EQ(file->waitingCount(Kind::event), 1U) << accepted;
  }
}

TEST_F(SkeldaIntakeOpeningTest, WithoutAFileThereIsMemoryOfTheSameBoundAndTheFileIsLeftAlone) {
  for (const char* kind : {"open", "allocate", "write", "rename"}) {
    const FaultyFileCalls plan;
    plan->failAll(kind, EIO);
    ErrorRef error;
    const auto file = SkeldaIntakeFile::open(path_, kCapacity, kKey, &error);
    EXPECT_FALSE(file->isProtected()) << kind;
    ASSERT_NE(error, nullptr) << kind;
    EXPECT_EQ(error->code(), EIO) << kind;
    EXPECT_EQ(file->capacity(), kCapacity) << kind;
    EXPECT_NE(append(*file, "one"), kSkeldaNoTicket) << kind;
    EXPECT_EQ(namesIn(directory_.path()), std::vector<std::string>{}) << kind;
  }
  {
    // A file system that reserves nothing is written to.
    const FaultyFileCalls plan;
    plan->failKind("allocate", 1, {.error = EOPNOTSUPP});
    EXPECT_TRUE(open()->isProtected());
    struct ::stat status {};
    ASSERT_EQ(::stat(path_.c_str(), &status), 0);
    EXPECT_GE(status.st_blocks * 512, status.st_size);
    EXPECT_GT(status.st_size, std::int64_t{kCapacity});
  }
  append(*open(), "kept");
  {
    const FaultyFileCalls plan;
    plan->failAll("open", EACCES);
    EXPECT_FALSE(SkeldaIntakeFile::open(path_, kCapacity, kKey)->isProtected());
  }
  EXPECT_EQ(payloadsOf(*open()), std::vector<std::string>{"kept"});
}

TEST_F(SkeldaIntakeOpeningTest, AnotherCapacityIsTakenOnOnceNothingWaits) {
  append(*open(), "one");
  {
    const auto file = open(kKey, 2 * kCapacity);
    EXPECT_EQ(file->capacity(), kCapacity);
    file->settle(file->takeOldest().value().ticket, Outcome::stored);
  }
  const auto file = open(kKey, 2 * kCapacity);
  EXPECT_EQ(file->capacity(), 2 * kCapacity);
  EXPECT_EQ(file->page().accepted[0], 1U);
  EXPECT_TRUE(addsUp(*file));
  EXPECT_EQ(std::filesystem::file_size(path_), 4096 + 2 * kCapacity);
  append(*file, "two");
  EXPECT_EQ(payloadsOf(*open(kKey, 2 * kCapacity)), std::vector<std::string>{"two"});
  struct ::stat status;
  ASSERT_EQ(::stat(path_.c_str(), &status), 0);
  EXPECT_GE(static_cast<std::size_t>(status.st_blocks) * 512, 2 * kCapacity);
  EXPECT_EQ(status.st_mode & 0777, 0600U);
}

}  // namespace
}  // namespace skelda::testing
