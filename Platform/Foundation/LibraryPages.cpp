#include "Platform/Foundation/LibraryPages.h"

#include <fcntl.h>
#include <link.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <new>
#include <string_view>

#include "Platform/Foundation/FileCalls.h"
#include "Platform/Foundation/FileDescriptor.h"

namespace skelda::platform {
namespace {

constexpr std::array<std::string_view, 3> kLibraries{"/libcrypto.so", "/libssl.so", "/libcurl.so"};

// What the system says of a page (/proc/self/pagemap).
constexpr std::uint64_t kPresent = std::uint64_t{1} << 63;
constexpr std::uint64_t kOfFile = std::uint64_t{1} << 61;

/// In memory, and as the file has it: what was written to is the process's own.
bool isOfFile(std::uint64_t page) noexcept {
  return (page & kPresent) != 0 && (page & kOfFile) != 0;
}

/// Looks at the process's pages through the file that tells of them.
class Pages {
 public:
  Pages() {
    int error = 0;
    file_ = FileDescriptor::open("/proc/self/pagemap", O_RDONLY, error);
  }

  /// Gives back the pages from the one of `begin` to before `end` that are the file's own.
  void giveBack(std::uintptr_t begin, std::uintptr_t end) const noexcept {
    begin -= begin % size_;
    while (file_ && begin < end) {
      std::array<std::uint64_t, 256> pages{};
      const std::size_t count =
          std::min<std::size_t>(pages.size(), (end - begin + size_ - 1) / size_);
      const auto wanted = count * sizeof pages[0];
      const auto offset = static_cast<::off_t>(begin / size_ * sizeof pages[0]);
      if (fileCall<&FileCalls::read>(file_.get(), pages.data(), wanted, offset) !=
          static_cast<::ssize_t>(wanted)) {
        return;
      }
      for (std::size_t i = 0; i < count;) {
        std::size_t next = i;
        while (next < count && isOfFile(pages[next])) ++next;
        if (next > i)
          ::madvise(reinterpret_cast<void*>(begin + i * size_), (next - i) * size_, MADV_DONTNEED);
        i = next + 1;
      }
      begin += count * size_;
    }
  }

 private:
  FileDescriptor file_;
  std::uintptr_t size_ = static_cast<std::uintptr_t>(::sysconf(_SC_PAGESIZE));
};

/// Code and constants: what can be written to is left alone.
int giveBackParts(dl_phdr_info* library, std::size_t, void* pages) noexcept {
  const std::string_view name = library->dlpi_name != nullptr ? library->dlpi_name : "";
  const auto isIn = [&](std::string_view wanted) { return name.find(wanted) != name.npos; };
  if (std::none_of(kLibraries.begin(), kLibraries.end(), isIn)) return 0;
  for (std::size_t i = 0; i < library->dlpi_phnum; ++i) {
    const auto& part = library->dlpi_phdr[i];
    if (part.p_type != PT_LOAD || (part.p_flags & PF_W) != 0) continue;
    const std::uintptr_t begin = library->dlpi_addr + part.p_vaddr;
    static_cast<Pages*>(pages)->giveBack(begin, begin + part.p_memsz);
  }
  return 0;
}

}  // namespace

void giveBackLibraryPages() noexcept {
  try {
    Pages pages;
    ::dl_iterate_phdr(&giveBackParts, &pages);
  } catch (const std::bad_alloc&) {
    // Without memory to look with nothing is given back; the next time may have it.
  }
}

}  // namespace skelda::platform
