#include "Platform/Foundation/LibraryPages.h"

#include <sys/mman.h>

#include "Tests/Support/Testing.h"

namespace {

/// The code of the cryptography library, as /proc tells of it.
struct Code {
  std::uintptr_t begin = 0, end = 0;
  std::size_t residentKiB = 0;
};

Code code() {
  Code found;
  std::ifstream file("/proc/self/smaps");
  for (std::string line; std::getline(file, line);) {
    char dash = 0;
    std::string rights;
    if (found.end == 0 && line.find("/libcrypto.so") != line.npos) {
      std::istringstream(line) >> std::hex >> found.begin >> dash >> found.end >> rights;
      if (rights != "r-xp") found = {};
    } else if (found.end != 0 && line.starts_with("Rss:")) {
      found.residentKiB = std::stoul(line.substr(4));
      break;
    }
  }
  return found;
}

TEST(LibraryPages, AreGivenBackButForOneThatSomebodyChanged) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the sanitizer follows no access to a library's code";
#endif
  constexpr std::size_t kPage = 4096;
  const Code before = code();
  for (std::uintptr_t at = before.begin; at < before.end; at += kPage)
    static_cast<void>(*reinterpret_cast<volatile const char*>(at));
  if (code().residentKiB < 1024) GTEST_SKIP() << "this system does not tell what is in memory";
  auto* const page = reinterpret_cast<char*>(before.end - kPage);
  volatile char* const changed = page;
  ASSERT_EQ(0, ::mprotect(page, kPage, PROT_READ | PROT_WRITE | PROT_EXEC));
  const char was = changed[kPage - 1];
  changed[kPage - 1] = static_cast<char>(was + 1);
  ASSERT_EQ(0, ::mprotect(page, kPage, PROT_READ | PROT_EXEC));

  platform::giveBackLibraryPages();

  EXPECT_LE(code().residentKiB, 256U) << "of " << (before.end - before.begin) / 1024;
  EXPECT_EQ(static_cast<char>(was + 1), changed[kPage - 1]);
}

}  // namespace
