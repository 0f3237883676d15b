// The document of the intake file shows the bytes that the agent writes.

#include <gtest/gtest.h>

#include "Tests/Analytics/Intake/Account/IntakeFiles.h"
#include "Tests/Support/Documents.h"

namespace skelda::testing {
namespace {

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
