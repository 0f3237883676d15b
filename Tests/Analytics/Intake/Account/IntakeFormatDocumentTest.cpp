// The document of the intake file shows the bytes that the agent writes.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "Tests/Analytics/Intake/Account/IntakeFiles.h"

namespace skelda::testing {
namespace {

/// Lines of an offset, the bytes, and the same as text; lines of nothing but zeros are left out.
std::string hexDump(std::string_view bytes) {
  std::string dump;
  for (std::size_t line = 0; line < bytes.size(); line += 16) {
    const std::string_view part = bytes.substr(line, 16);
    if (part.find_first_not_of('\0') == std::string_view::npos) continue;
    std::string hex;
    std::string text;
    for (const char c : part) {
      hex += fmt::format(" {:02x}", static_cast<unsigned char>(c));
      text += c >= 0x20 && c < 0x7F ? c : '.';
    }
    dump += fmt::format("{:08x} {:<48}  {}\n", line, hex, text);
  }
  return dump;
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
  const std::string document = readFile(std::string(SKELDA_DOCS_FOLDER) + "/intake-format.md");
  const std::string dump = hexDump(readFile(files.path_));
  EXPECT_NE(document.find("```hex intake\n" + dump + "```\n"), std::string::npos) << dump;
}

}  // namespace
}  // namespace skelda::testing
