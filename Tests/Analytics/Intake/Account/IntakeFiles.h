#pragma once

#include <sys/mman.h>

#include "Analytics/Intake/Account/SkeldaIntakeLayout.h"
#include "Tests/Support/Testing.h"

namespace skelda::testing {

struct IntakeFiles {
  static constexpr std::size_t kCapacity = std::size_t{64} << 10;
  static constexpr std::uint64_t kKey = 77;
  static constexpr std::int64_t kDate = 1600000000123456;
  static constexpr std::int64_t kUptime = 5000;

  TemporaryDirectory directory_;
  const std::string path_ = directory_ / ".intake_261.journal";

  auto open(std::uint64_t key = kKey, std::size_t capacity = kCapacity) const {
    ErrorRef error;
    auto file = SkeldaIntakeFile::open(path_, capacity, key, &error);
    EXPECT_TRUE(file->isProtected()) << description(error);
    return file;
  }
};

inline SkeldaIntakeTicket append(SkeldaIntakeFile& file, const std::string& payload,
                                 SkeldaIntakeFile::Kind kind = SkeldaIntakeFile::Kind::event) {
  return file.append(kind, IntakeFiles::kDate, IntakeFiles::kUptime, payload.size(),
                     [&](char* to) { std::copy(payload.begin(), payload.end(), to); });
}

inline std::uint64_t settledCount(SkeldaIntakeFile& file, SkeldaIntakeFile::Kind kind) {
  const auto& settled = file.page().settled[static_cast<std::size_t>(kind) - 1];
  return std::accumulate(std::begin(settled), std::end(settled), std::uint64_t{0});
}

inline bool addsUp(SkeldaIntakeFile& file) {
  const auto adds = [&](SkeldaIntakeFile::Kind kind) {
    const std::size_t index = static_cast<std::size_t>(kind) - 1;
    return file.page().accepted[index] ==
           settledCount(file, kind) + file.page().cutOff[index] + file.waitingCount(kind);
  };
  return adds(SkeldaIntakeFile::Kind::event) && adds(SkeldaIntakeFile::Kind::choice);
}

struct Slot {
  SkeldaIntakeLayout::Place place;
  SkeldaIntakeLayout::Record& record;
};

/// `edit` is given the bytes of the file, which it may alter.
template <class Edit>
void editFile(const std::string& path, Edit edit) {
  std::string bytes = readFile(path);
  alignas(64) static char aligned[std::size_t{1} << 20];
  ASSERT_LE(bytes.size(), sizeof aligned);
  std::memcpy(aligned, bytes.data(), bytes.size());
  edit(aligned);
  writeFile(path, {aligned, bytes.size()});
}

/// Whether the system makes pages present that are asked for: Linux from 5.14 on.
inline bool canPopulate() {
  constexpr int kPopulateWrite = 23;
  alignas(4096) static char page[4096];
  return ::madvise(page, sizeof page, kPopulateWrite) == 0;
}

/// Whether a sanitizer of threads or an emulator touches pages of its own at each access.
#ifdef __SANITIZE_THREAD__
inline const bool kIsWatched = true;
#else
inline const bool kIsWatched = std::getenv("SKELDA_EMULATED") != nullptr;
#endif

inline long pageFaultsOfThisThread() {
  ::rusage usage{};
  ::getrusage(RUSAGE_THREAD, &usage);
  return usage.ru_minflt + usage.ru_majflt;
}

/// Bytes of the mapped file that count as memory of this process.
inline std::size_t residentOf(const std::string& path) {
  const std::string maps = readFile("/proc/self/smaps");
  const std::size_t rss = maps.find("\nRss:", maps.find(path));
  return rss == maps.npos ? 0 : std::stoul(maps.substr(rss + 5)) << 10;
}

}  // namespace skelda::testing
