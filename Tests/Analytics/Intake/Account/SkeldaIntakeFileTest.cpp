#include "Analytics/Intake/Account/SkeldaAccounting.h"
#include "Tests/Analytics/Intake/Account/IntakeFiles.h"
#include "Tests/Support/Documents.h"
#include "Tests/Support/Recorded.h"

namespace skelda::testing {
namespace {

using std::chrono::steady_clock;

steady_clock::time_point inTwentySeconds() {
  return steady_clock::now() + 20s;
}

class SkeldaIntakeFileTest : public ::testing::Test, protected IntakeFiles {};

TEST_F(SkeldaIntakeFileTest, ARecordComesBackAsItWasAppendedAndIsSettledOnce) {
  for (const auto& file : {open(), SkeldaIntakeFile::inMemory(kCapacity)}) {
    EXPECT_FALSE(file->hasUntaken());
    const auto ticket = append(*file, "one", SkeldaIntakeFile::Kind::choice);
    ASSERT_NE(ticket, kSkeldaNoTicket);
    ASSERT_NE(append(*file, ""), kSkeldaNoTicket);
    EXPECT_EQ(file->waitingCount(SkeldaIntakeFile::Kind::choice), 1U);
    ASSERT_TRUE(file->hasUntaken());

    const auto record = file->takeOldest().value();
    EXPECT_EQ(record.ticket, ticket);
    EXPECT_EQ(record.kind, SkeldaIntakeFile::Kind::choice);
    EXPECT_EQ(record.sequence, 1U);
    EXPECT_EQ(record.microsecondsSince1970, kDate);
    EXPECT_EQ(record.uptimeMilliseconds, kUptime);
    EXPECT_TRUE(record.isOfThisBoot);
    EXPECT_FALSE(record.isReplayed);
    EXPECT_EQ(record.payload, "one");
    EXPECT_EQ(file->takeOldest().value().payload, "");
    EXPECT_EQ(file->takeOldest(), std::nullopt);
    EXPECT_EQ(file->takenCount(), 2U);

    int settlings = 0;
    file->setDidSettle([&] { ++settlings; });
    EXPECT_TRUE(file->settle(ticket, SkeldaIntakeOutcome::notUTF8));
    EXPECT_FALSE(file->settle(ticket, SkeldaIntakeOutcome::stored));
    for (const SkeldaIntakeTicket none : {kSkeldaNoTicket, ticket + 1, ~SkeldaIntakeTicket{0}}) {
      EXPECT_FALSE(file->settle(none, SkeldaIntakeOutcome::stored)) << none;
    }
    EXPECT_EQ(settlings, 1);
    EXPECT_EQ(settledCount(*file, SkeldaIntakeFile::Kind::choice), 1U);
    EXPECT_EQ(file->takenCount(), 1U);
    EXPECT_TRUE(addsUp(*file));
    const std::uint64_t unprotected = file->page().unprotected[1].load();
    EXPECT_EQ(unprotected, file->isProtected() ? 0U : 1U);
  }
}

TEST_F(SkeldaIntakeFileTest, WhatDoesNotFitIsRefusedAndLeavesNothingBehind) {
  const auto file = open();
  EXPECT_EQ(append(*file, std::string(file->longestPayload() + 1, 'x')), kSkeldaNoTicket);
  std::set<SkeldaIntakeTicket> tickets;
  for (int round = 0; round < 3; ++round) {
    const std::string payload(static_cast<std::size_t>(1000 + round), 'x');
    while (append(*file, payload) != kSkeldaNoTicket) {
    }
    const auto count = file->waitingCount(SkeldaIntakeFile::Kind::event);
    EXPECT_GT(count * 1100, kCapacity * 9 / 10);
    while (const auto record = file->takeOldest()) {
      EXPECT_TRUE(tickets.insert(record->ticket).second);
      EXPECT_EQ(record->payload, payload);
      EXPECT_TRUE(file->settle(record->ticket, SkeldaIntakeOutcome::stored));
    }
    EXPECT_EQ(file->waitingCount(SkeldaIntakeFile::Kind::event), 0U);
    EXPECT_EQ(tickets.size(), file->page().accepted[0].load());
  }
  EXPECT_NE(append(*file, std::string(file->longestPayload(), 'x')), kSkeldaNoTicket);
}

TEST_F(SkeldaIntakeFileTest, FourThreadsAtOnceLoseNothingAndKeepTheirOrder) {
  constexpr std::size_t kEach = 20000;
  const auto file = open();
  std::map<std::uint64_t, std::uint64_t> next;
  inThreads(5, [&](unsigned thread) {
    std::mt19937 chance(thread);
    if (thread < 4) {
      for (std::size_t i = 0; i < kEach; ++i) {
        const Numbered payload{thread, i, chance() % 300};
        while (append(*file, payload.text()) == kSkeldaNoTicket) std::this_thread::yield();
      }
      return;
    }
    std::vector<SkeldaIntakeTicket> underWay;
    for (std::uint64_t count = 0; count < 4 * kEach; std::this_thread::yield()) {
      while (const auto record = file->takeOldest()) {
        const auto payload = Numbered::of(record->payload);
        EXPECT_TRUE(payload && payload->index == next[payload->thread]++);
        underWay.push_back(record->ticket);
        ++count;
      }
      // Not in the order in which they were taken.
      std::shuffle(underWay.begin(), underWay.end(), chance);
      for (const auto ticket : underWay) file->settle(ticket, SkeldaIntakeOutcome::stored);
      underWay.clear();
    }
  });
  EXPECT_EQ(settledCount(*file, SkeldaIntakeFile::Kind::event), 4 * kEach);
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
  for (std::size_t i = 1; i < taken.size(); ++i) {
    file->settle(taken[i], SkeldaIntakeOutcome::stored);
  }
  EXPECT_FALSE(file->waitUntilSettled(steady_clock::now() + 1ms));
  std::atomic<bool> isOver{false};
  inThreads(2, [&](unsigned thread) {
    if (thread == 0) {
      EXPECT_TRUE(file->waitUntilSettled(inTwentySeconds()));
      isOver = true;
      return;
    }
    // From then on one that came later is always under way.
    for (SkeldaIntakeTicket before = taken[0]; !isOver;) {
      append(*file, payload);
      file->settle(before, SkeldaIntakeOutcome::stored);
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
    file->settle(before, SkeldaIntakeOutcome::stored);
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
  // Some 630 pages are written to.
  EXPECT_LE(waited, 4 * kEach / 100);
}

TEST(SkeldaAccounting, CountsGoIntoTheFileOnceThereIsOneAndNeverFromAForkedChild) {
  const IntakeFiles files;
  SkeldaAccounting::refused(SkeldaRefusal::badName);
  SkeldaAccounting::settle(16, SkeldaIntakeOutcome::stored);
  SkeldaAccounting::page().lastAnswer = 200;
  SkeldaAccountPage& early = SkeldaAccounting::page();
  const auto file = files.open();
  SkeldaAccounting::setFile(file);
  SkeldaAccounting::add(early.requests);
  SkeldaAccounting::logRemoved(SkeldaLogRemoval::unreadable, 3);
  SkeldaAccounting::blockRemoved(SkeldaBlockRemoval::damaged);
  EXPECT_EQ(&SkeldaAccounting::page(), &file->page());
  const auto& page = file->page();
  EXPECT_EQ(page.refused[static_cast<std::size_t>(SkeldaRefusal::badName)], 1U);
  EXPECT_EQ(page.logsRemoved[static_cast<std::size_t>(SkeldaLogRemoval::unreadable)], 3U);
  EXPECT_EQ(page.blocksRemoved[static_cast<std::size_t>(SkeldaBlockRemoval::damaged)], 1U);
  EXPECT_EQ(page.requests, 1U);
  EXPECT_EQ(page.lastAnswer, 200U);
  const auto ticket = append(*file, "x");
  SkeldaAccounting::settle(ticket, SkeldaIntakeOutcome::stored);
  EXPECT_EQ(settledCount(*file, SkeldaIntakeFile::Kind::event), 1U);

  ChildProcess child([] {
    SkeldaAccounting::settle(SkeldaIntakeTicket{16}, SkeldaIntakeOutcome::stored);
    SkeldaAccounting::refused(SkeldaRefusal::forkedChild);
    return static_cast<int>(SkeldaAccounting::page().refused[6]);
  });
  EXPECT_EQ(child.wait(), 1);
  EXPECT_EQ(page.refused[static_cast<std::size_t>(SkeldaRefusal::forkedChild)], 0U);
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
    append(*file, "runner-7", SkeldaIntakeFile::Kind::choice);
    file->settle(file->takeOldest().value().ticket, SkeldaIntakeOutcome::stored);
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
  EXPECT_EQ(fencedBlock(document("intake-format.md"), "hex intake"),
            hexDump(readFile(files.path_)));
}

}  // namespace
}  // namespace skelda::testing
