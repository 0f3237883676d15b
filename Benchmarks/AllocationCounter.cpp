// Preloaded into a program whose allocations are to be counted: those of all threads but the first,
// which is the harness's. The count goes to the file that SKELDA_ALLOCATIONS names when the program
// ends.

#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>

// What a host's allocator is made of, from the library under it.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* old, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

constinit std::atomic<unsigned long> allocations{0};

void count() noexcept {
  thread_local const bool isFirst = ::gettid() == ::getpid();
  if (!isFirst) allocations.fetch_add(1, std::memory_order_relaxed);
}

[[gnu::destructor]] void tell() {
  const char* const path = std::getenv("SKELDA_ALLOCATIONS");
  std::FILE* const file = path != nullptr ? std::fopen(path, "w") : nullptr;
  if (file == nullptr) return;
  std::fprintf(file, "%lu\n", allocations.load());
  std::fclose(file);
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] void* malloc(std::size_t size) {
  count();
  return __libc_malloc(size);
}
[[gnu::visibility("default")]] void* calloc(std::size_t number, std::size_t size) {
  count();
  return __libc_calloc(number, size);
}
[[gnu::visibility("default")]] void* realloc(void* old, std::size_t size) {
  count();
  return __libc_realloc(old, size);
}
[[gnu::visibility("default")]] void* aligned_alloc(std::size_t alignment, std::size_t size) {
  count();
  return __libc_memalign(alignment, size);
}
[[gnu::visibility("default")]] int posix_memalign(void** place, std::size_t alignment,
                                                  std::size_t size) {
  count();
  *place = __libc_memalign(alignment, size);
  return *place != nullptr ? 0 : 12;  // ENOMEM
}
}
