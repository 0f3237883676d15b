#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Tests/Analytics/Intake/Account/IntakeFiles.h"
#include "Tests/Support/Documents.h"

namespace {

using std::chrono::steady_clock;
using Kind = SkeldaIntakeFile::Kind;
using Outcome = SkeldaIntakeOutcome;

struct SkeldaIntakeFileTest : testing::Test, IntakeFiles {};

TEST_F(SkeldaIntakeFileTest, ARecordComesBackAsItWasAppendedAndIsSettledOnce) {
  for (const auto& file : {open(), SkeldaIntakeFile::inMemory(kCapacity)}) {
    EXPECT_FALSE(file->hasUntaken());
    const auto ticket = append(*file, "one", Kind::choice);
    ASSERT_NE(ticket, kSkeldaNoTicket);
    ASSERT_NE(append(*file, ""), kSkeldaNoTicket);
    EXPECT_EQ(file->waitingCount(Kind::choice), 1U);
    ASSERT_TRUE(file->hasUntaken());

    const auto record = file->takeOldest().value();
    EXPECT_EQ(std::tuple(record.ticket, record.kind, record.sequence, record.microsecondsSince1970,
                         record.uptimeMilliseconds, record.isOfThisBoot, record.isReplayed),
              std::tuple(ticket, Kind::choice, 1U, kDate, kUptime, true, false));
    EXPECT_EQ(record.payload, "one");
    EXPECT_EQ(file->takeOldest().value().payload, "");
    EXPECT_EQ(file->takeOldest(), std::nullopt);
    EXPECT_EQ(file->takenCount(), 2U);

    int settlings = 0;
    file->setDidSettle([&] { ++settlings; });
    EXPECT_TRUE(file->settle(ticket, Outcome::notUTF8));
    EXPECT_FALSE(file->settle(ticket, Outcome::stored));
    for (const SkeldaIntakeTicket none : {kSkeldaNoTicket, ticket + 1, ~SkeldaIntakeTicket{0}})
      EXPECT_FALSE(file->settle(none, Outcome::stored)) << none;
    EXPECT_EQ(settlings, 1);
    EXPECT_EQ(settledCount(*file, Kind::choice), 1U);
    EXPECT_EQ(file->takenCount(), 1U);
    EXPECT_TRUE(addsUp(*file));
    EXPECT_EQ(file->page().unprotected[1], file->isProtected() ? 0U : 1U);
  }
}

TEST_F(SkeldaIntakeFileTest, WhatDoesNotFitIsRefusedAndLeavesNothingBehind) {
  const auto file = open();
  EXPECT_EQ(append(*file, std::string(file->longestPayload() + 1, 'x')), kSkeldaNoTicket);
  std::set<SkeldaIntakeTicket> tickets;
  for (int round = 0; round < 3; ++round) {
    const std::string payload(static_cast<std::size_t>(1000 + round), 'x');
    while (append(*file, payload) != kSkeldaNoTicket) continue;
    EXPECT_GT(file->waitingCount(Kind::event) * 1100, kCapacity * 9 / 10);
    while (const auto record = file->takeOldest()) {
      EXPECT_TRUE(tickets.insert(record->ticket).second);
      EXPECT_EQ(record->payload, payload);
      EXPECT_TRUE(file->settle(record->ticket, Outcome::stored));
    }
    EXPECT_EQ(file->waitingCount(Kind::event), 0U);
    EXPECT_EQ(tickets.size(), file->page().accepted[0].load());
  }
  EXPECT_NE(append(*file, std::string(file->longestPayload(), 'x')), kSkeldaNoTicket);
}

TEST_F(SkeldaIntakeFileTest, FourThreadsAtOnceLoseNothingAndKeepTheirOrder) {
  constexpr std::size_t kEach = 20000;
  const auto file = open();
  // Of any length up to 300, and each byte of it is known.
  const auto textOf = [](std::size_t thread, std::size_t index) {
    const std::string text = fmt::format("{} {} ", thread, index);
    return text + std::string(index * 7 % 300, static_cast<char>('a' + index % 26));
  };
  std::array<std::size_t, 4> next{};
  inThreads(5, [&](unsigned thread) {
    if (thread < 4) {
      for (std::size_t i = 0; i < kEach; ++i)
        while (append(*file, textOf(thread, i)) == kSkeldaNoTicket) std::this_thread::yield();
      return;
    }
    std::mt19937 chance(thread);
    std::vector<SkeldaIntakeTicket> underWay;
    for (std::uint64_t count = 0; count < 4 * kEach; std::this_thread::yield()) {
      while (const auto record = file->takeOldest()) {
        const auto from = std::stoul(record->payload);
        EXPECT_EQ(record->payload, textOf(from, next.at(from)++));
        underWay.push_back(record->ticket);
        ++count;
      }
      std::shuffle(underWay.begin(), underWay.end(), chance);
      for (const auto ticket : underWay) file->settle(ticket, Outcome::stored);
      underWay.clear();
    }
  });
  EXPECT_EQ(settledCount(*file, Kind::event), 4 * kEach);
  EXPECT_TRUE(addsUp(*file));
  EXPECT_FALSE(file->hasUntaken());
  EXPECT_TRUE(file->waitUntilSettled(steady_clock::now()));
}

TEST_F(SkeldaIntakeFileTest, WaitingEndsWithWhatWasThereAtItsBegin) {
  const auto file = open();
  // A first segment with all but one record of it settled, and another one begun.
  const std::string payload(1000, 'x');
  for (int i = 0; i < 20; ++i) append(*file, payload);
  std::vector<SkeldaIntakeTicket> taken;
  while (const auto record = file->takeOldest()) taken.push_back(record->ticket);
  for (std::size_t i = 1; i < taken.size(); ++i) file->settle(taken[i], Outcome::stored);
  EXPECT_FALSE(file->waitUntilSettled(steady_clock::now() + 1ms));
  std::atomic<bool> isOver{false};
  inThreads(2, [&](unsigned thread) {
    if (thread == 0) {
      const auto deadline = steady_clock::now() + 20s;
      EXPECT_TRUE(file->waitUntilSettled(deadline) && steady_clock::now() < deadline);
      isOver = true;
      return;
    }
    // From then on one that came later is always under way.
    for (SkeldaIntakeTicket before = taken[0]; !isOver;) {
      append(*file, payload);
      file->settle(before, Outcome::stored);
      before = file->takeOldest().value().ticket;
    }
  });
}

TEST_F(SkeldaIntakeFileTest, APipelineThatKeepsUpTouchesFewPages) {
  const auto file = SkeldaIntakeFile::open(path_, std::size_t{8} << 20, kKey);
  const std::string payload(200, 'x');
  SkeldaIntakeTicket before = append(*file, payload);
  file->takeOldest();
  for (int i = 0; i < 50000; ++i) {
    // One record is always under way, so that the journal is never empty.
    append(*file, payload);
    const auto record = file->takeOldest().value();
    file->settle(before, Outcome::stored);
    before = record.ticket;
  }
  EXPECT_GT(residentOf(path_), 0U);
  EXPECT_LE(residentOf(path_), std::size_t{64} << 10);
}

TEST_F(SkeldaIntakeFileTest, OneCallInAHundredAtMostWaitsForPages) {
  if (!canPopulate()) GTEST_SKIP() << "the system populates no pages";
  if (kIsWatched) GTEST_SKIP() << "the pages of a sanitizer or an emulator count, too";
  const auto file = SkeldaIntakeFile::open(path_, std::size_t{8} << 20, kKey);
  constexpr unsigned kEach = 5000;
  const std::string payload(70, 'x');
  std::atomic<unsigned> waited{0};
  inThreads(4, [&](unsigned) {
    for (unsigned i = 0; i < kEach; ++i) {
      const long before = pageFaultsOfThisThread();
      ASSERT_NE(append(*file, payload), kSkeldaNoTicket);
      if (pageFaultsOfThisThread() != before) ++waited;
    }
  });
  EXPECT_LE(waited, 4 * kEach / 100);
}

// -- What a start finds in the file that an earlier process left

struct SkeldaIntakeOpeningTest : testing::Test, IntakeFiles {
  std::size_t bytesOnDisk() const {
    struct ::stat status {};
    EXPECT_EQ(::stat(path_.c_str(), &status), 0);
    return static_cast<std::size_t>(status.st_blocks) * 512;
  }
};

Texts payloadsOf(SkeldaIntakeFile& file) {
  Texts payloads;
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
  for (unsigned start = 0; start < SkeldaIntakeFile::kAttemptsAlone; ++start)
    EXPECT_EQ(payloadsOf(*open()), Texts{"poison"}) << start;
  const auto file = open();
  EXPECT_EQ(file->opening().replayedTooOften, 1U);
  const auto record = file->takeOldest().value();
  EXPECT_EQ(record.payload, "harmless");
  EXPECT_TRUE(record.isReplayed && record.isOfThisBoot);
  append(*file, "new");
  EXPECT_FALSE(file->hasUntaken());
  EXPECT_TRUE(file->settle(record.ticket, Outcome::stored));
  EXPECT_EQ(payloadsOf(*file), Texts{"new"});
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
  EXPECT_EQ(namesIn(directory_.path()), Texts{".intake_261.journal"});
  EXPECT_EQ(payloadsOf(*file), Texts{"three"});
  EXPECT_EQ(file->opening().otherVersion, 1U);
  EXPECT_EQ(at(file->page().settled[1], Outcome::otherKey), 2U);
  EXPECT_EQ(at(file->page().settled[0], Outcome::otherVersion), 3U);
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
    EXPECT_EQ(payloadsOf(*open()), Texts{"one"});
    for (auto& name : namesIn(directory_.path())) std::filesystem::remove_all(directory_ / name);
  }
}

TEST_F(SkeldaIntakeOpeningTest, AnAccountThatDoesNotAddUpIsCorrectedAndSaid) {
  const std::tuple<std::uint64_t, std::uint64_t, bool> cases[] = {
      {3, 2, false}, {1 + 65, 65, true}, {0, 0, true}};
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
    const FaultyFileCalls plan(kind, Fault::always(EIO));
    ErrorRef error;
    const auto file = SkeldaIntakeFile::open(path_, kCapacity, kKey, &error);
    EXPECT_FALSE(file->isProtected()) << kind;
    EXPECT_EQ(codeOf(error), EIO) << kind;
    EXPECT_EQ(file->capacity(), kCapacity) << kind;
    EXPECT_NE(append(*file, "one"), kSkeldaNoTicket) << kind;
    EXPECT_EQ(namesIn(directory_.path()), Texts{}) << kind;
  }
  // A file system that reserves nothing is written to.
  const FaultyFileCalls plan("allocate", {.error = EOPNOTSUPP});
  EXPECT_TRUE(open()->isProtected());
  EXPECT_GE(bytesOnDisk(), std::filesystem::file_size(path_));
  EXPECT_GT(std::filesystem::file_size(path_), kCapacity);
  append(*open(), "kept");
  plan->failAll("open", EACCES);
  EXPECT_FALSE(SkeldaIntakeFile::open(path_, kCapacity, kKey)->isProtected());
  plan->clear();
  EXPECT_EQ(payloadsOf(*open()), Texts{"kept"});
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
  EXPECT_EQ(payloadsOf(*open(kKey, 2 * kCapacity)), Texts{"two"});
  EXPECT_GE(bytesOnDisk(), 2 * kCapacity);
  EXPECT_EQ(modeOf(path_), 0600U);
}

TEST(SkeldaAccounting, CountsGoIntoTheFileOnceThereIsOneAndNeverFromAForkedChild) {
  const IntakeFiles files;
  SkeldaAccounting::refused(SkeldaRefusal::badName);
  SkeldaAccounting::settle(16, Outcome::stored);
  SkeldaAccounting::page().lastAnswer = 200;
  SkeldaAccountPage& early = SkeldaAccounting::page();
  const auto file = files.open();
  SkeldaAccounting::setFile(file);
  SkeldaAccounting::add(early.requests);
  SkeldaAccounting::logRemoved(SkeldaLogRemoval::unreadable, 3);
  SkeldaAccounting::blockRemoved(SkeldaBlockRemoval::damaged);
  EXPECT_EQ(&SkeldaAccounting::page(), &file->page());
  const auto& page = file->page();
  EXPECT_EQ(at(page.refused, SkeldaRefusal::badName), 1U);
  EXPECT_EQ(at(page.logsRemoved, SkeldaLogRemoval::unreadable), 3U);
  EXPECT_EQ(at(page.blocksRemoved, SkeldaBlockRemoval::damaged), 1U);
  EXPECT_EQ(page.requests, 1U);
  EXPECT_EQ(page.lastAnswer, 200U);
  const auto ticket = append(*file, "x");
  SkeldaAccounting::settle(ticket, Outcome::stored);
  EXPECT_EQ(settledCount(*file, Kind::event), 1U);

  ChildProcess child([] {
    SkeldaAccounting::settle(SkeldaIntakeTicket{16}, Outcome::stored);
    SkeldaAccounting::refused(SkeldaRefusal::forkedChild);
    return static_cast<int>(SkeldaAccounting::page().refused[6]);
  });
  EXPECT_EQ(child.wait(), 1);
  EXPECT_EQ(at(page.refused, SkeldaRefusal::forkedChild), 0U);
  SkeldaAccounting::setFile(nullptr);
}

TEST(IntakeFormatDocument, ShowsTheBytesThatTheAgentWrites) {
  using namespace SkeldaIntakeLayout;
  const IntakeFiles files;
  constexpr std::uint64_t kSalt = 0x0123456789ABCDEF;
  const auto open = [&] { return files.open(IntakeFiles::kKey, SkeldaIntakeFile::kSegmentCount); };
  open();
  // What differs from file to file and from boot to boot is fixed.
  editFile(files.path_, [](char* bytes) {
    auto& page = *reinterpret_cast<Page*>(bytes);
    page.salt = kSalt;
    page.checksum = page.staticChecksum();
  });
  {
    const auto file = open();
    append(*file, "hello");
    append(*file, "runner-7", Kind::choice);
    file->settle(file->takeOldest().value().ticket, Outcome::stored);
  }
  editFile(files.path_, [](char* bytes) {
    for (const std::uint64_t units : {std::uint64_t{0}, unitsFor(5)}) {
      const Place place(SkeldaIntakeFile::kSegmentCount, units);
      auto& record = *reinterpret_cast<Record*>(bytes + SkeldaIntakeFile::kHeaderLength +
                                                units * SkeldaIntakeFile::kAlignment);
      EXPECT_EQ(record.checksum, checksumOf(record, place, kSalt));
      record.boot = 0xB007;
      record.checksum = checksumOf(record, place, kSalt);
    }
  });
  EXPECT_EQ(fencedBlock("intake-format.md", "hex intake"), hexDump(readFile(files.path_)));
}

}  // namespace
